#!/usr/bin/env bash
# Checks that the agent exports only its entry points and JNI natives, and needs nothing at run
# time beyond the C library (the C++ runtime is linked in).
set -u
library=$1
status=0
unexpected=$(nm -D --defined-only "$library" | awk '{print $3}' | grep -v -E '^(Agent_OnLoad|Agent_OnAttach|Agent_OnUnload|Java_com_brantide_kelvane_plugin_jvmti_api_JvmtiApi_[A-Za-z0-9_]+)$' | grep -v '^$')
if [ -n "$unexpected" ]; then
  echo "unexpected exported symbols:"; echo "$unexpected"; status=1
fi
for wanted in Agent_OnLoad Agent_OnAttach Agent_OnUnload; do
  nm -D --defined-only "$library" | grep -q " $wanted\$" || { echo "missing export $wanted"; status=1; }
done
needed=$(readelf -d "$library" | sed -n 's/.*NEEDED.*\[\(.*\)\]/\1/p' | grep -v -E '^(libc\.so\.6|libm\.so\.6|ld-linux-x86-64\.so\.2)$')
if [ -n "$needed" ]; then
  echo "unexpected run-time dependencies:"; echo "$needed"; status=1
fi
if nm -D "$library" | grep -E ' U (__cxa_throw|_Unwind_Resume|__gxx_personality)' >/dev/null; then
  echo "the library needs the C++ exception runtime"; status=1
fi
[ $status -eq 0 ] && echo "exports and dependencies ok"
exit $status

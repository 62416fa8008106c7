#!/usr/bin/env bash
# Checks the library's structure: the files of src/main/cpp, taken as modules (x.h with x.cpp),
# use each other through their #include lines without a circle, and each uses only modules of its
# own layer and the layers below. A new file must be given its layer in the table below.
# Usage: tools/check-layers.sh [source directory]
set -u
dir=${1:-$(dirname "$0")/../src/main/cpp}

# Lower layers first; a module may use its own layer and those above it in this list.
layers='
base: log global resources lock config version native spinlock nothrow_array error_name
logic: smap line_table signature frame_rules event_mask bytecode capabilities
glue: reference object_methods hooks class_registry exception thread_cleanups thread_info
glue: vm_events virtual_threads construction_frames thread thread_events events lookup loaded_classes boxing
features: breakpoints breakpoint_location field_watches step_depth source_lines step_data frames
features: compiled_step step_command hook_call step_stop stepping dispatch suspend locals stacks
features: heap heap_memory arena walk_limit gcroots dump
entry: kvjvmti control
'

# One "module used" pair per line, from every project include.
edges=$(for file in "$dir"/*.h "$dir"/*.cpp; do
  module=$(basename "${file%.*}")
  sed -n 's/^#include "\([^"]*\)\.h".*/\1/p' "$file" | while read -r used; do
    [ -e "$dir/$used.h" ] && [ "$used" != "$module" ] && echo "$module $used"
  done
done | sort -u)
modules=$(for file in "$dir"/*.h "$dir"/*.cpp; do basename "${file%.*}"; done | sort -u)

printf '%s\n' "$layers" | awk -v edges="$edges" -v modules="$modules" '
  /^[a-z]+:/ {
    name = substr($1, 1, length($1) - 1)
    if (!(name in rank)) { rank[name] = ++ranks }
    for (i = 2; i <= NF; i++) layer[$i] = name
  }
  END {
    status = 0
    n = split(modules, all, "\n")
    for (i = 1; i <= n; i++) {
      if (!(all[i] in layer)) { print "no layer for " all[i] " (add it to tools/check-layers.sh)"; status = 1 }
    }
    m = split(edges, lines, "\n")
    for (i = 1; i <= m; i++) {
      if (split(lines[i], pair, " ") != 2) continue
      from = pair[1]; to = pair[2]
      uses[from] = uses[from] " " to
      if ((from in layer) && (to in layer) && rank[layer[to]] > rank[layer[from]]) {
        print "layer: " from " (" layer[from] ") uses " to " (" layer[to] ")"; status = 1
      }
    }
    # Depth-first search; a module met again while still on the path closes a circle.
    for (i = 1; i <= n; i++) if (visit(all[i], "")) status = 1
    if (status == 0) print "layers ok: " n " modules, no include circle"
    exit status
  }
  function visit(module, path,    list, k, count, found, circle) {
    if (state[module] == 2) return 0
    if (state[module] == 1) {
      circle = path " "
      sub("^.* " module " ", module " ", circle)
      print "circle: " circle "-> " module
      return 1
    }
    state[module] = 1
    found = 0
    count = split(uses[module], list, " ")
    for (k = 1; k <= count; k++) if (visit(list[k], path " " module)) found = 1
    state[module] = 2
    return found
  }
'

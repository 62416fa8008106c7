// The agent's own state report, written when the VM receives a data-dump request.
#pragma once

#include <jvmti.h>

void JNICALL DataDumpRequest(jvmtiEnv* jvmti);

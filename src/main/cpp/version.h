// The version banner, fixed at build time.
#pragma once

// "Kelvane JVMTI Revision: <version> Build: <number>.<revision>.<version> Date: <date>"
const char* version_banner();

// Reading the agent's configuration from system property values (pure: no VM involved).
#pragma once

// Leading decimal digits (with sign), as strtol reads them; text without digits gives 0.
int parse_log_level(const char* text);

// The VM runs ColdFusion when "coldfusion.home" is set, or else when the command starts with
// "com.adobe.coldfusion." (the final dot included). A null command is not ColdFusion.
bool is_coldfusion(bool coldfusion_home_set, const char* java_command);

// A switch property: only exactly "true" enables; absent, it is on except under ColdFusion.
bool parse_switch(const char* value, bool coldfusion);

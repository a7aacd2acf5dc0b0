#include "tools/standalone_client/client_globals.h"

int print_results = 1;
OutputMode output_mode_code = OutputMode::kAscii;
PrintOptions print_options;
bool escape_control_chars = false;
ConfigLayer* client_config = nullptr;

#include "tools/standalone_client/client_globals.h"

int print_results = 1;
int output_mode_code = 0;
ConfigLayer* client_config = nullptr;

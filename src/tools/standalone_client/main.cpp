#include "tools/standalone_client/driver.h"

int main(int argc, char** argv) { return kest_client_main(argc, argv); }

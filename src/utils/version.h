// Build identification shared by the client's -v and every assertion report.
#pragma once

// The build text, computed once into a process-wide 128-byte buffer; the pointer stays valid for
// the life of the process.
const char* version_str();

// Prints "%s\n%s\n" with `progname` and version_str() on standard output.
void version(const char* progname);

#pragma once

// Fills run_options from the command line. False when it is not valid; nothing is printed.
bool parse_args(int argc, char* argv[]);

// The part for get and set: the type (argv[2]) and the options from argv[3] on.
bool parse_options(int argc, char* argv[]);

void print_usage();         // standard output
void print_version();       // standard output
void print_syntax_error();  // standard error

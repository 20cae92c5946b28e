#pragma once

// The whole run: parses the command line, writes the run log corvik.log in the current folder, runs
// the handler. Returns the result code.
int run_program(int argc, char* argv[]);

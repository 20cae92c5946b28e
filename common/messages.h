#pragma once

// Prints a message to standard error, with a format as printf() takes it. Where that is a pipe that
// nobody reads any more, the message is lost and the tool goes on: an import that ended there would
// leave what it has removed and not yet put back.
void print_message(const char* format, ...) __attribute__((format(printf, 1, 2)));

#pragma once

// Makes a run that ends by an exception nobody catches say on standard error, in one line that
// begins "corvik: ", what went wrong; the process then aborts.
void install_last_word();

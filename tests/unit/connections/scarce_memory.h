#pragma once

// How many of the next allocations by operator new succeed; negative: all. The operators themselves
// stand with the tests of the terminal sessions.
extern long allocations_left;
// Whether one that fails is the only one.
extern bool allocations_come_back;

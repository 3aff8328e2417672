#pragma once

// Calls of operator new until one fails; that one sets it to -1, which stands for any number. Set
// only while the process has one thread.
extern int allocations_left;

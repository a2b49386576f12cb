#ifndef PLEXA_SRC_ZNR_LOOP_TUNING_H
#define PLEXA_SRC_ZNR_LOOP_TUNING_H

#include <cstdint>

// The numbers that shape one turn of a reactor's loop, kept together
// because they trade against each other: latency of timers, fairness
// between descriptors and loop events, and system calls per completion.

// Completions one wait hands out at most: one system call serves a burst
// from many descriptors, and the batch is small enough to live on the
// loop's stack.
int const kCompletionBatch = 64;

// Completions the epoll engine hands out before it polls readiness again,
// even when its ready list is not empty: operations that keep finishing
// at once (a descriptor that always has data) cannot starve the others.
unsigned int const kCompletionsPerPoll = 64;

// Queued loop events run per turn by default: enough to keep up with a
// steady stream from other threads, few enough that the completions of a
// turn are not held back behind a flood of them.
int const kDefaultLoopEventDisposeSize = 100;
// Loop events that may wait at once by default; past it a sender is told
// to back off instead of the queue growing without bound.
int const kDefaultLoopEventQueueMax = 100000;

// The timer wheel fires a timer only on a tick that falls in the timer's
// slot, so the loop wakes this long before the nearest expiry and then
// every millisecond until it has fired: a sleep that overshot by a tick
// would wait a whole round of the wheel.
std::uint64_t const kNearTimerMs = 1;

// How long a reactor that shuts down waits for the cancelled operations of
// its closed devices to complete; cancels complete at once on every engine,
// so this only bounds a misbehaving system.
int const kDrainWaitMs = 1000;

#endif

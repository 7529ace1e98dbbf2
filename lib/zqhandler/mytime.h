// Millisecond ticks taken from the time of day, elapsed-time arithmetic and a millisecond sleep.
#pragma once

#include <cstdint>

// A time stamp: microseconds within the second, then the calendar seconds. Owned by the caller.
struct MyTick {
    uint32_t usec;
    uint32_t sec;
};

// Fills `tick` with the current time; returns 0.
int GetMyTick(MyTick* tick);
// Whole milliseconds from `tick` to now (truncated). A tick in the future gives a wrapped value.
int ElapsedTime2ms(const MyTick* tick);
// Whole milliseconds from `start` to `end`, in unsigned 32-bit arithmetic, truncated.
int ElapsedTicks2ms(const MyTick* start, const MyTick* end);
// The tick's microseconds divided by 1000 (0 to 999).
unsigned ExtractMyTickMilliSeconds(const MyTick* tick);
// Prints "tick: <seconds>.<microseconds>\n" on standard output.
void dumpTick(const MyTick* tick);
// Stores the current seconds and (microseconds * 1000) as nanoseconds; either pointer may be null.
void GetTimeNow(uint32_t* seconds, uint32_t* nanoseconds);
// Sleeps `milliseconds` (a microsecond sleep of milliseconds * 1000); returns the sleep's result.
int msleep(unsigned milliseconds);

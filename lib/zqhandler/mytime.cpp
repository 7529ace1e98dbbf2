// The library's clock: ticks with microsecond resolution, durations in whole milliseconds.
#include "mytime.h"

#include <cstdio>
#include <sys/time.h>
#include <unistd.h>

int GetMyTick(MyTick* tick) {
    timeval now{};
    gettimeofday(&now, nullptr);
    tick->usec = static_cast<uint32_t>(now.tv_usec);
    tick->sec = static_cast<uint32_t>(now.tv_sec);
    return 0;
}

int ElapsedTicks2ms(const MyTick* start, const MyTick* end) {
    uint32_t elapsed;
    if (end->usec < start->usec)
        elapsed =
            (end->sec - start->sec - 1) * 1000u + (1000000u - (start->usec - end->usec)) / 1000u;
    else
        elapsed = (end->sec - start->sec) * 1000u + (end->usec - start->usec) / 1000u;
    return static_cast<int>(elapsed);
}

int ElapsedTime2ms(const MyTick* tick) {
    MyTick now;
    GetMyTick(&now);
    return ElapsedTicks2ms(tick, &now);
}

unsigned ExtractMyTickMilliSeconds(const MyTick* tick) {
    return tick->usec / 1000u;
}

void dumpTick(const MyTick* tick) {
    printf("tick: %lu.%lu\n", static_cast<unsigned long>(tick->sec),
           static_cast<unsigned long>(tick->usec));
}

void GetTimeNow(uint32_t* seconds, uint32_t* nanoseconds) {
    MyTick now;
    GetMyTick(&now);
    if (seconds)
        *seconds = now.sec;
    if (nanoseconds)
        *nanoseconds = now.usec * 1000u;
}

int msleep(unsigned milliseconds) {
    return usleep(static_cast<useconds_t>(milliseconds) * 1000u);
}

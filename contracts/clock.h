// Time for programs that poll.
#pragma once

// Sleeps for that time, or until a signal arrives.
void Nap(int milliseconds_);

// Seconds from an arbitrary start, unaffected by changes of the clock.
double Now();

// Time for programs that poll.
#pragma once

// Sleeps that long; less if a signal arrives.
void Nap(int milliseconds_);

// Seconds from an arbitrary start, unaffected by changes of the clock.
double Now();

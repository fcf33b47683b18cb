// The files of the page that need no login, embedded by the build from programs/desk/page.
#pragma once

extern const char kStyle[];
extern const char kScript[];
extern const char kIcon[];

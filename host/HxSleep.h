// The host's sleep primitive.
#pragma once

// Pauses the calling thread. `file` and `line` are the caller's source position, for the host's
// diagnostics. Any thread may call it.
void HXSLEEP_InTeRnAl(unsigned long milliseconds, const char* file, int line);

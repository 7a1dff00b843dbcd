// The host's sleep primitive.
#pragma once

// Pauses the calling thread. `file` and `line` say where the call stands, for the host's diagnostics.
void HXSLEEP_InTeRnAl(unsigned long milliseconds, const char* file, int line);

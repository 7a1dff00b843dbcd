// The stand-alone host has no snapshot handlers. libZnISCSI.so needs this library by name.

// The host's platform context: what a call is done on behalf of.
//
// Thread-safety: a context belongs to one call on one thread.
#pragma once

// What the process is at work on, in the host's own words.
class ZNPI_Focus
{
public:
    // The current focus. The host's; valid until the process ends. Never null.
    static const char* getFocus();
};

// A platform context, open from its construction to its destruction.
class ZNPI_PlatformBase
{
public:
    ZNPI_PlatformBase();
    ZNPI_PlatformBase(const ZNPI_PlatformBase&) = delete;
    ZNPI_PlatformBase& operator=(const ZNPI_PlatformBase&) = delete;
    ~ZNPI_PlatformBase();

    // Binds the context to `focus`, which outlives it.
    void setFocus(const char* focus);

private:
    const char* m_focus = "";
};

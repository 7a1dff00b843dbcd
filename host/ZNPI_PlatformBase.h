// The host's platform context: on whose behalf a call works.
//
// Thread-safety: use a context on one thread only.
#pragma once

// The current work of the process, in the host's words.
class ZNPI_Focus
{
public:
    // The current focus. Belongs to the host, valid until the process ends, never null.
    static const char* getFocus();
};

// A platform context is open from its construction to its destruction.
class ZNPI_PlatformBase
{
public:
    ZNPI_PlatformBase();
    ZNPI_PlatformBase(const ZNPI_PlatformBase&) = delete;
    ZNPI_PlatformBase& operator=(const ZNPI_PlatformBase&) = delete;
    ~ZNPI_PlatformBase();

    // Binds the context to `focus`, which must outlive it.
    void setFocus(const char* focus);

private:
    const char* m_focus = "";
};

#include "host/ZNPI_PlatformBase.h"

#include <cerrno>

// The stand-alone host has one focus: the program.
const char* ZNPI_Focus::getFocus()
{
    return program_invocation_short_name;
}

ZNPI_PlatformBase::ZNPI_PlatformBase() = default;

ZNPI_PlatformBase::~ZNPI_PlatformBase() = default;

void ZNPI_PlatformBase::setFocus(const char* focus)
{
    m_focus = focus;
}

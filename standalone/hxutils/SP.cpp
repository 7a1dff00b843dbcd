#include "host/SP.h"

#include <utility>

SPEnabled::SPEnabled() = default;
SPEnabled::~SPEnabled() = default;

SPBase::SPBase() = default;

SPBase::~SPBase()
{
    assign(nullptr);
}

void SPBase::assign(SPEnabled* object)
{
    // Take the new share first: the old share may be the last one of the same object.
    if (object != nullptr)
        object->m_shares.fetch_add(1, std::memory_order_relaxed);
    SPEnabled* const old = std::exchange(m_object, object);
    if (old != nullptr && old->m_shares.fetch_sub(1, std::memory_order_acq_rel) == 1)
        delete old;
}

void SPBase::assign(const SPBase& other)
{
    assign(other.m_object);
}

SPEnabled* SPBase::get() const
{
    return m_object;
}

// An intrusive shared pointer of the host's utility library.
//
// Thread-safety: the reference count is atomic: several threads may copy and drop shares of one object.
// Use one SP object on one thread at a time.
#pragma once

#include <atomic>

// Base class of shared objects. The object is deleted with its last share.
class SPEnabled
{
public:
    SPEnabled();
    SPEnabled(const SPEnabled&) = delete;
    SPEnabled& operator=(const SPEnabled&) = delete;
    virtual ~SPEnabled();

private:
    friend class SPBase;
    std::atomic<int> m_shares{0};
};

// The raw pointer behind every SP.
class SPBase
{
public:
    SPBase();
    SPBase(const SPBase&) = delete;
    SPBase& operator=(const SPBase&) = delete;
    ~SPBase();

    // Drops the old share and takes one of `object`; null leaves the pointer empty.
    void assign(SPEnabled* object);
    void assign(const SPBase& other);

    // The object, or null.
    SPEnabled* get() const;

private:
    SPEnabled* m_object = nullptr;
};

template <class T>
class SP : public SPBase
{
public:
    SP(SPEnabled* object = nullptr) { assign(object); }
    SP(const SP& other) : SPBase() { assign(other); }
    SP& operator=(const SP& other) // NOLINT(cert-oop54-cpp): assign takes the new share first
    {
        assign(other);
        return *this;
    }
    ~SP() = default;

    // The object, or null if the pointer is empty.
    T* operator->() const { return static_cast<T*>(get()); }
};

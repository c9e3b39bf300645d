// orvo_object.h - the root of the library's named, printable objects, the
// export macro and the one assertion macro used by every family.
#pragma once

#include <string>

#if defined(ORVO_BUILDING_LIBRARY)
#define ORVO_API __attribute__((visibility("default")))
// Functions every message passes through: the compiler keeps them together
// (.text.hot), so the message path touches few code pages.
#define ORVO_HOT __attribute__((hot))
#else
#define ORVO_API
#endif

namespace orvo {

// Prints "orvo assertion failed: <expr> (<family>: <signature>)" on standard
// error and aborts. Used through ORVO_ASSERT only; active in release builds.
[[noreturn]] ORVO_API void AssertFailed(const char* expr, const char* family,
                                        const char* function);

}  // namespace orvo

// Each source file names its family before including any header, e.g.
//   #define ORVO_SOURCE "orvo_record"
#ifndef ORVO_SOURCE
#define ORVO_SOURCE "orvo"
#endif

#define ORVO_ASSERT(expr)                                                       \
    ((expr) ? (void)0                                                           \
            : ::orvo::AssertFailed(#expr, ORVO_SOURCE, __PRETTY_FUNCTION__))

namespace orvo {

// cObject: an object name and the delete-after-close mark that a service reads
// when it hands out a channel's close message. Not thread-safe.
class ORVO_API cObject {
public:
    cObject() = default;
    // Most objects have no name; copying an empty one costs no library call.
    cObject(const cObject& other) : m_DeleteAfterClose(other.m_DeleteAfterClose)
    {
        if (!other.m_ObjName.empty())
            m_ObjName = other.m_ObjName;
    }
    cObject& operator=(const cObject& other)
    {
        if (!other.m_ObjName.empty() || !m_ObjName.empty())
            m_ObjName = other.m_ObjName;
        m_DeleteAfterClose = other.m_DeleteAfterClose;
        return *this;
    }
    // Inline: every record view and record destroys one, on hot paths.
    virtual ~cObject() = default;

    void SetObjName(const std::string& name) { m_ObjName = name; }
    std::string GetObjName() const { return m_ObjName; }

    // Delete-after-close mark: 0 or 1; copied by assignment.
    void SetDeleteAfterClose(bool on) { m_DeleteAfterClose = on ? 1 : 0; }
    bool GetDeleteAfterClose() const { return m_DeleteAfterClose != 0; }

    // "name=" followed by the object name.
    virtual std::string ToString() const;

private:
    std::string m_ObjName;              // empty at construction
    unsigned char m_DeleteAfterClose = 0;
};

}  // namespace orvo

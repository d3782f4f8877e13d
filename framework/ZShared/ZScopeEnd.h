#pragma once

#include <utility>

/// Does something when its scope ends, however it ends. The work must not throw.
template <typename Work>
class ZScopeEnd {
public:
    explicit ZScopeEnd(Work work) : m_work(std::move(work)) {}
    ~ZScopeEnd() { m_work(); }
    ZScopeEnd(const ZScopeEnd&) = delete;
    ZScopeEnd& operator=(const ZScopeEnd&) = delete;

private:
    Work m_work;
};

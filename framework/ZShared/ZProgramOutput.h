#pragma once

#include <memory>

/// What programs of their own say, on standard output or standard error, becomes lines of the log that name the
/// program: on the console it could pass for anybody's. Beside each there is a small process that hands its lines over,
/// so that the program outlives this one and is never kept waiting or ended by what it says. What it says while nobody
/// takes it is lost. One thread, from the first program on.
class ZProgramOutput {
public:
    static ZProgramOutput& Instance();

    /// For the child that will be the program: where its lines are handed over. Negative when the system has nothing to
    /// make it of, which is logged; the program's lines are lost then.
    int Door();

    /// In that child: from now on what `program` says is handed over to `door`, which the child has no more use of;
    /// negative: it is lost. As
    /// after any fork of a process with threads, this calls only what is safe in a signal handler.
    static void HandOver(int door, const char* program);

private:
    ZProgramOutput();
    ~ZProgramOutput();
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

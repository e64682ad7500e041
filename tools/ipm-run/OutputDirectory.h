// The directory that receives a run's pictures and summary. A file appears
// there whole or not at all: it is written under a hidden temporary name in
// the same directory and renamed when complete, so an interrupted run leaves
// no half-written picture or summary under a real name.
#pragma once

#include <cstdio>
#include <functional>
#include <string>

class OutputDirectory {
public:
    // Creates the directory (and its parents) if missing and checks that a
    // file can be created in it. False with a one-line message otherwise.
    // Call it before starting other threads: it reads the process's umask.
    static bool prepare(const std::string& path, OutputDirectory& out, std::string& error);

    // Writes `name` through `write`, which gets an open file and returns
    // false (with a message) on failure. False, with the temporary file
    // removed, if anything fails.
    bool writeFile(const std::string& name, const std::function<bool(std::FILE*, std::string&)>& write,
                   std::string& error) const;

    const std::string& path() const { return path_; }
    std::string pathOf(const std::string& name) const;

private:
    std::string path_;
    unsigned fileModeMask_ = 022;
};

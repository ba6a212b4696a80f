// The file that a recording goes into: plain lines, or gzip when its name ends in .gz.
#pragma once

#include "base/failure.h"
#include "base/process.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace qorctl {

// A line or a part of it wasn't written: the disk is full, a limit is reached, or the reader has gone.
struct WriteFailure : Failure {
    using Failure::Failure;
};

class PartFile {
public:
    // Makes the file, for its owner alone; "-" is standard output. Throws a Failure when it exists already or
    // can't be made.
    explicit PartFile(std::string path);
    ~PartFile();
    PartFile(const PartFile &) = delete;
    PartFile &operator=(const PartFile &) = delete;

    // Adds a line. Throws a WriteFailure.
    void Write(std::string_view line);

    // Has all that was added so far on disk, where a reader finds it even if this process is killed.
    void Flush();

    // After a WriteFailure: takes back what there is of the last line. Returns whether lines can be written
    // again; to packed ones and standard output they can't.
    bool TakeBack();

    // Ends the file whole and closes it. Throws a WriteFailure: a disk of the network or a quota may refuse
    // only now. Later calls do nothing.
    void Close();

    uint64_t bytes() const { return bytes_; } // of the file so far
    const std::string &path() const { return path_; }

private:
    struct Gzip;
    void Deflate(std::string_view text, int how);
    void Put(std::string_view bytes);
    [[noreturn]] void Fail() const;

    std::string path_;
    FileDescriptor file_;
    std::unique_ptr<Gzip> gzip_;     // null for plain lines
    uint64_t bytes_ = 0, whole_ = 0; // up to the last line's end
    bool closed_ = false;
};

// The name of a recording's part: "FILE" is part 1, "FILE" with ".N" before its endings part N.
std::string PartName(const std::string &path, int part);

// Calls `use` with a recording's bytes, piece by piece, unpacked where they are gzip; what follows a cut or
// damaged place is left out. Throws a Failure when the file can't be read.
void ReadPart(const std::string &path, const std::function<void(std::string_view)> &use);

} // namespace qorctl

#include "part_file.h"

#include "base/failure.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>
#include <zlib.h>

namespace qorctl {

namespace {

constexpr size_t PIECE = 65536;
constexpr int GZIP_FORM = 15 + 16, ANY_FORM = 15 + 32; // window of 32 KiB, and which header
constexpr int MEMORY_LEVEL = 9;

bool EndsWith(std::string_view text, std::string_view end) {
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

Bytef *InputOf(std::string_view text) {
    return reinterpret_cast<Bytef *>(const_cast<char *>(text.data())); // zlib doesn't write there
}

std::string ReadWhole(const std::string &path) {
    FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string text, piece(PIECE, '\0');
    ssize_t count = file.ok() ? 1 : -1;
    while (count > 0 && (count = read(file.get(), piece.data(), piece.size())) > 0)
        text.append(piece, 0, static_cast<size_t>(count));
    if (count < 0)
        throw Failure(fmt::format("can't read {}: {}", path, strerror(errno)), "check the path", EXIT_USAGE);
    return text;
}

} // namespace

struct PartFile::Gzip {
    z_stream stream = {};
    bool ok = deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, GZIP_FORM, MEMORY_LEVEL,
                           Z_DEFAULT_STRATEGY) == Z_OK;
    Gzip() = default;
    Gzip(const Gzip &) = delete;
    Gzip &operator=(const Gzip &) = delete;
    ~Gzip() { deflateEnd(&stream); }
};

PartFile::PartFile(std::string path)
    : path_(std::move(path)),
      file_(path_ == "-" ? dup(STDOUT_FILENO)
                         : open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600)) {
    if (!file_.ok())
        throw Failure(fmt::format("can't make {}: {}", path_, strerror(errno)),
                      errno == EEXIST ? "give another name with --out, or move it away"
                                      : "give a path that can be written with --out");
    if (!EndsWith(path_, ".gz"))
        return;
    gzip_ = std::make_unique<Gzip>();
    if (!gzip_->ok)
        throw Failure("no memory for compressing", "give a name without .gz");
}

PartFile::~PartFile() = default;

void PartFile::Put(std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t count = write(file_.get(), bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            throw Failure(fmt::format("can't write to {}: {}", path_, strerror(errno)),
                          "what was written before is whole; make room and record again");
        bytes_ += static_cast<uint64_t>(count);
        bytes.remove_prefix(static_cast<size_t>(count));
    }
}

void PartFile::Deflate(std::string_view text, int how) {
    char piece[PIECE];
    z_stream &stream = gzip_->stream;
    stream.next_in = InputOf(text);
    stream.avail_in = static_cast<uInt>(text.size());
    do {
        stream.next_out = reinterpret_cast<Bytef *>(piece);
        stream.avail_out = sizeof piece;
        deflate(&stream, how);
        Put({piece, sizeof piece - stream.avail_out});
    } while (stream.avail_out == 0);
}

void PartFile::Write(std::string_view line) {
    if (gzip_) {
        Deflate(line, Z_NO_FLUSH);
        Deflate("\n", Z_NO_FLUSH);
        return;
    }
    Put(line);
    Put("\n");
}

void PartFile::Flush() {
    if (gzip_ && !closed_)
        Deflate({}, Z_SYNC_FLUSH);
}

void PartFile::Close() {
    if (gzip_ && !closed_)
        Deflate({}, Z_FINISH);
    closed_ = true;
}

std::string PartName(const std::string &path, int part) {
    if (part == 1 || path == "-")
        return path;
    size_t name = path.rfind('/') == path.npos ? 0 : path.rfind('/') + 1;
    size_t point = std::min(path.find('.', name + 1), path.size()); // not the one of a hidden file
    return fmt::format("{}.{}{}", path.substr(0, point), part, path.substr(point));
}

std::string ReadPart(const std::string &path) {
    std::string packed = ReadWhole(path), text;
    if (packed.compare(0, 2, "\x1f\x8b") != 0)
        return packed;
    z_stream stream = {};
    if (inflateInit2(&stream, ANY_FORM) != Z_OK)
        throw Failure("no memory for unpacking", "unpack the file first");
    char piece[PIECE];
    stream.next_in = InputOf(packed);
    stream.avail_in = static_cast<uInt>(packed.size());
    for (int state = Z_OK; state == Z_OK;) {
        stream.next_out = reinterpret_cast<Bytef *>(piece);
        stream.avail_out = sizeof piece;
        state = inflate(&stream, Z_NO_FLUSH);
        text.append(piece, sizeof piece - stream.avail_out);
    }
    inflateEnd(&stream);
    return text;
}

} // namespace qorctl

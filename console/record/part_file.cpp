#include "part_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <optional>
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

// Unpacks gzip, one archive after the other.
class Unpacker {
public:
    Unpacker() : ok_(inflateInit2(&stream_, ANY_FORM) == Z_OK) {
        if (!ok_)
            throw Failure("no memory for unpacking", "unpack the file first");
    }
    ~Unpacker() { inflateEnd(&stream_); }
    Unpacker(const Unpacker &) = delete;
    Unpacker &operator=(const Unpacker &) = delete;

    void Add(std::string_view packed, const std::function<void(std::string_view)> &use) {
        char piece[PIECE];
        stream_.next_in = InputOf(packed);
        stream_.avail_in = static_cast<uInt>(packed.size());
        do {
            stream_.next_out = reinterpret_cast<Bytef *>(piece);
            stream_.avail_out = sizeof piece;
            const int state = ok_ ? inflate(&stream_, Z_NO_FLUSH) : Z_DATA_ERROR;
            ok_ = state == Z_OK || state == Z_BUF_ERROR ||
                  (state == Z_STREAM_END && inflateReset(&stream_) == Z_OK);
            use({piece, sizeof piece - stream_.avail_out});
        } while (ok_ && (stream_.avail_in > 0 || stream_.avail_out == 0));
    }

private:
    z_stream stream_ = {};
    bool ok_; // up to here
};

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

void PartFile::Fail() const {
    throw WriteFailure(fmt::format("can't write to {}: {}", path_, strerror(errno)),
                       "make room, or give another place with --out");
}

void PartFile::Put(std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t count = write(file_.get(), bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            Fail();
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
    whole_ = bytes_;
}

bool PartFile::TakeBack() {
    bytes_ = whole_;
    return !gzip_ && path_ != "-" && ftruncate(file_.get(), static_cast<off_t>(whole_)) == 0 &&
           lseek(file_.get(), static_cast<off_t>(whole_), SEEK_SET) >= 0;
}

void PartFile::Flush() {
    if (gzip_ && !closed_)
        Deflate({}, Z_SYNC_FLUSH);
}

void PartFile::Close() {
    if (closed_)
        return;
    if (gzip_)
        Deflate({}, Z_FINISH);
    closed_ = true;
    if (!file_.Close())
        Fail();
}

std::string PartName(const std::string &path, int part) {
    if (part == 1 || path == "-")
        return path;
    size_t name = path.rfind('/') == path.npos ? 0 : path.rfind('/') + 1;
    size_t point = std::min(path.find('.', name + 1), path.size()); // not the one of a hidden file
    return fmt::format("{}.{}{}", path.substr(0, point), part, path.substr(point));
}

void ReadPart(const std::string &path, const std::function<void(std::string_view)> &use) {
    FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::optional<Unpacker> unpacker;
    std::string piece(PIECE, '\0');
    ssize_t count = file.ok() ? 1 : -1;
    for (bool first = true; count > 0; first = false) {
        if ((count = read(file.get(), piece.data(), piece.size())) <= 0)
            break;
        const std::string_view bytes(piece.data(), static_cast<size_t>(count));
        if (first && bytes.substr(0, 2) == "\x1f\x8b")
            unpacker.emplace();
        unpacker ? unpacker->Add(bytes, use) : use(bytes);
    }
    if (count < 0)
        throw Failure(fmt::format("can't read {}: {}", path, strerror(errno)), "check the path", EXIT_USAGE);
}

} // namespace qorctl

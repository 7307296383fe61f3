// The zip container of .xlsx packages, over libzip: reading parts with a
// guard against inflation bombs (deflated parts inflated by ISA-L, checked
// against their CRC), and writing a package into a temporary file that
// replaces the target only when complete.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "workbook/store.h"

struct zip;
struct zip_file;
struct zip_source;

namespace zorv::xlsx {

// No part of a workbook is allowed to inflate beyond this, nor beyond
// kMaxRatio times its compressed size (deflate cannot do better than about
// 1030:1; real sheets stay far below 200:1). Small parts are exempt from the
// ratio rule.
constexpr uint64_t kMaxPartBytes = 4ull << 30;
constexpr uint64_t kMaxRatio = 250;
constexpr uint64_t kRatioFloor = 4u << 20;

class ZipReader {
public:
    ~ZipReader();
    // displayName names the file in messages.
    static Result<std::unique_ptr<ZipReader>> openFile(const std::string& path, const std::string& displayName);
    static Result<std::unique_ptr<ZipReader>> openMemory(std::string_view bytes, const std::string& displayName);

    zip* handle() const { return za_; }
    const std::string& displayName() const { return name_; }
    // Index of a part (names compared without regard to case); -1 when absent.
    int64_t find(std::string_view part) const;
    std::vector<std::string> names() const;
    // The stored (original) name of an entry.
    std::string nameAt(int64_t index) const;

    // Reads a whole part. maxBytes caps it below kMaxPartBytes.
    Status readAll(std::string_view part, std::string& out, uint64_t maxBytes = kMaxPartBytes) const;

    // A part read piecewise, with the same guards.
    class Stream {
    public:
        ~Stream();
        // Reads up to n bytes; 0 at the end; -1 on failure (see error()).
        int64_t read(char* buf, size_t n);
        const std::string& error() const { return err_; }
        uint64_t declaredSize() const { return size_; }

    private:
        friend class ZipReader;
        struct Deflated;  // a deflated part read as stored and inflated here
        int64_t inflate(char* buf, size_t n);
        int64_t damaged(const std::string& why);
        zip_file* zf_ = nullptr;
        std::unique_ptr<Deflated> deflated_;
        std::string part_, file_;
        uint64_t size_ = 0, limit_ = 0, got_ = 0;
        std::string err_;
    };
    Result<std::unique_ptr<Stream>> openStream(std::string_view part, uint64_t maxBytes = kMaxPartBytes) const;

private:
    ZipReader() = default;
    Status stat(int64_t idx, std::string_view part, uint64_t maxBytes, uint64_t& size, uint64_t& limit) const;
    zip* za_ = nullptr;
    std::string name_;
    std::string mem_;  // the bytes of an in-memory archive
};

// Writes a new package. Parts are stored in the order added. Failures
// carry the reason only; the caller names the file.
class ZipWriter {
public:
    ~ZipWriter();
    static Result<std::unique_ptr<ZipWriter>> create(const std::string& path);
    // Copies a part of another archive as it stands (compressed bytes kept).
    bool addCopy(const std::string& name, const ZipReader& from, int64_t index);
    // Adds bytes, deflated at a fast level.
    bool addBytes(const std::string& name, std::string bytes);
    // Adds a part produced piecewise. make() returns a generator that
    // appends the next piece to out and returns false at the end (it throws
    // on failure); it runs during close(), possibly more than once.
    using Generator = std::function<bool(std::string& out)>;
    bool addGenerated(const std::string& name, std::function<Generator()> make);
    // Writes the file (temporary file, then rename). On failure nothing at
    // the target changes.
    Status close();
    void discard();
    const std::string& lastError() const { return err_; }

private:
    ZipWriter() = default;
    bool setup(int64_t idx);
    bool addDeflated(const std::string& name, zip_source* src);
    zip* za_ = nullptr;
    std::string path_, err_;
    std::vector<std::unique_ptr<std::string>> buffers_;
};

}  // namespace zorv::xlsx

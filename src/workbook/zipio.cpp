#include "workbook/zipio.h"

#include <isa-l/igzip_lib.h>
#include <zip.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>

namespace zorv::xlsx {

namespace {

Failure Fail(std::string text) {
    Failure f;
    f.tag = "Workbook(Zip): ";
    f.text = std::move(text);
    return f;
}

std::string ZipErrorText(int code) {
    zip_error_t e;
    zip_error_init_with_code(&e, code);
    std::string s = zip_error_strerror(&e);
    zip_error_fini(&e);
    return s;
}

std::string OpenFailureText(const std::string& name, int code, bool looksZip) {
    switch (code) {
    case ZIP_ER_NOENT: return "Cannot find file: " + name;
    case ZIP_ER_OPEN:
    case ZIP_ER_READ: return "Cannot read file: " + name;
    case ZIP_ER_NOZIP:
        if (looksZip) return name + " is damaged or truncated (its zip directory is missing).";
        return name + " is not an .xlsx workbook (not a zip package).";
    case ZIP_ER_INCONS: return name + " is damaged or truncated (inconsistent zip archive).";
    default: return name + " cannot be opened: " + ZipErrorText(code);
    }
}

std::string MB(uint64_t n) { return std::to_string(n >> 20) + " MB"; }

}  // namespace

ZipReader::~ZipReader() {
    if (za_) zip_discard(za_);
}

Result<std::unique_ptr<ZipReader>> ZipReader::openFile(const std::string& path, const std::string& displayName) {
    std::unique_ptr<ZipReader> r(new ZipReader);
    r->name_ = displayName;
    int err = 0;
    r->za_ = zip_open(path.c_str(), ZIP_RDONLY | ZIP_CHECKCONS, &err);
    if (!r->za_) {
        bool looksZip = false;
        if (std::FILE* f = std::fopen(path.c_str(), "rb")) {
            char sig[4] = {};
            looksZip = std::fread(sig, 1, 4, f) == 4 && std::memcmp(sig, "PK\x03\x04", 4) == 0;
            std::fclose(f);
        }
        return Fail(OpenFailureText(displayName, err, looksZip));
    }
    return r;
}

Result<std::unique_ptr<ZipReader>> ZipReader::openMemory(std::string_view bytes, const std::string& displayName) {
    std::unique_ptr<ZipReader> r(new ZipReader);
    r->name_ = displayName;
    r->mem_.assign(bytes);
    zip_error_t ze;
    zip_error_init(&ze);
    zip_source_t* src = zip_source_buffer_create(r->mem_.data(), r->mem_.size(), 0, &ze);
    if (!src) {
        zip_error_fini(&ze);
        return Fail(displayName + " cannot be opened: out of memory");
    }
    r->za_ = zip_open_from_source(src, ZIP_RDONLY | ZIP_CHECKCONS, &ze);
    if (!r->za_) {
        int code = zip_error_code_zip(&ze);
        zip_source_free(src);
        zip_error_fini(&ze);
        bool looksZip = bytes.size() >= 4 && bytes.substr(0, 4) == std::string_view("PK\x03\x04", 4);
        return Fail(OpenFailureText(displayName, code, looksZip));
    }
    zip_error_fini(&ze);
    return r;
}

int64_t ZipReader::find(std::string_view part) const {
    std::string p(part);
    return zip_name_locate(za_, p.c_str(), ZIP_FL_NOCASE);
}

std::vector<std::string> ZipReader::names() const {
    std::vector<std::string> out;
    zip_int64_t n = zip_get_num_entries(za_, 0);
    for (zip_int64_t i = 0; i < n; ++i) out.push_back(nameAt(i));
    return out;
}

std::string ZipReader::nameAt(int64_t index) const {
    const char* s = zip_get_name(za_, static_cast<zip_uint64_t>(index), ZIP_FL_ENC_RAW);
    return s ? s : "";
}

Status ZipReader::stat(int64_t idx, std::string_view part, uint64_t maxBytes, uint64_t& size,
                       uint64_t& limit) const {
    zip_stat_t st;
    zip_stat_init(&st);
    if (zip_stat_index(za_, static_cast<zip_uint64_t>(idx), 0, &st) != 0)
        return Fail(name_ + ": the part '" + std::string(part) + "' cannot be read: " +
                    zip_strerror(za_));
    size = (st.valid & ZIP_STAT_SIZE) ? st.size : 0;
    uint64_t comp = (st.valid & ZIP_STAT_COMP_SIZE) ? st.comp_size : 0;
    limit = std::min(maxBytes, kMaxPartBytes);
    if (comp > 0 && comp < limit / kMaxRatio) limit = std::max(kRatioFloor, comp * kMaxRatio);
    if (size > limit) {
        std::string why = size > std::min(maxBytes, kMaxPartBytes)
                              ? "inflates beyond " + MB(std::min(maxBytes, kMaxPartBytes))
                              : "inflates beyond " + std::to_string(kMaxRatio) +
                                    " times its compressed size";
        return Fail(name_ + ": the part '" + std::string(part) + "' " + why +
                    " (a damaged file or a zip bomb).");
    }
    return StatusOk();
}

Status ZipReader::readAll(std::string_view part, std::string& out, uint64_t maxBytes) const {
    auto s = openStream(part, maxBytes);
    if (!s) return s.failure();
    Stream& st = **s;
    out.clear();
    out.reserve(static_cast<size_t>(st.declaredSize()));
    char buf[65536];
    for (;;) {
        int64_t n = st.read(buf, sizeof buf);
        if (n < 0) return Fail(st.error());
        if (n == 0) break;
        out.append(buf, static_cast<size_t>(n));
    }
    return StatusOk();
}

struct ZipReader::Stream::Deflated {
    inflate_state state;
    std::vector<uint8_t> in = std::vector<uint8_t>(256u << 10);
    uint64_t left = 0;  // compressed bytes not yet read
    uint32_t crc = 0;   // the entry's
    bool finished = false;
};

Result<std::unique_ptr<ZipReader::Stream>> ZipReader::openStream(std::string_view part, uint64_t maxBytes) const {
    int64_t idx = find(part);
    if (idx < 0) return Fail(name_ + ": the part '" + std::string(part) + "' is missing.");
    uint64_t size = 0, limit = 0;
    if (auto st = stat(idx, part, maxBytes, size, limit); !st) return st.failure();
    std::unique_ptr<Stream> s(new Stream);
    s->part_ = part;
    s->file_ = name_;
    s->size_ = size;
    s->limit_ = limit;
    // A deflated part is read as stored and inflated by ISA-L, over twice as
    // fast as zlib behind libzip; anything else (stored, other methods,
    // encrypted) is libzip's to read.
    zip_stat_t zs;
    zip_stat_init(&zs);
    const bool deflated = zip_stat_index(za_, static_cast<zip_uint64_t>(idx), 0, &zs) == 0 &&
                          (zs.valid & (ZIP_STAT_COMP_METHOD | ZIP_STAT_COMP_SIZE | ZIP_STAT_CRC)) ==
                              (ZIP_STAT_COMP_METHOD | ZIP_STAT_COMP_SIZE | ZIP_STAT_CRC) &&
                          zs.comp_method == ZIP_CM_DEFLATE &&
                          (!(zs.valid & ZIP_STAT_ENCRYPTION_METHOD) || zs.encryption_method == ZIP_EM_NONE);
    s->zf_ = zip_fopen_index(za_, static_cast<zip_uint64_t>(idx), deflated ? ZIP_FL_COMPRESSED : 0);
    if (!s->zf_)
        return Fail(name_ + ": the part '" + std::string(part) + "' cannot be read: " + zip_strerror(za_));
    if (deflated) {
        s->deflated_ = std::make_unique<Stream::Deflated>();
        isal_inflate_init(&s->deflated_->state);
        s->deflated_->state.crc_flag = ISAL_GZIP_NO_HDR;  // the CRC-32 of the output, as zip keeps it
        s->deflated_->left = zs.comp_size;
        s->deflated_->crc = zs.crc;
    }
    return s;
}

ZipReader::Stream::~Stream() {
    if (zf_) zip_fclose(zf_);
}

int64_t ZipReader::Stream::damaged(const std::string& why) {
    err_ = file_ + ": the part '" + part_ + "' is damaged or truncated (" + why + ").";
    return -1;
}

int64_t ZipReader::Stream::inflate(char* buf, size_t n) {
    Deflated& d = *deflated_;
    if (d.finished || n == 0) return 0;
    inflate_state& s = d.state;
    n = std::min<size_t>(n, UINT32_MAX);
    s.next_out = reinterpret_cast<uint8_t*>(buf);
    s.avail_out = static_cast<uint32_t>(n);
    for (;;) {
        if (s.avail_in == 0 && d.left > 0) {
            const zip_int64_t m = zip_fread(zf_, d.in.data(), std::min<uint64_t>(d.in.size(), d.left));
            if (m <= 0) return damaged(m < 0 ? zip_file_strerror(zf_) : "Unexpected end of data");
            d.left -= static_cast<uint64_t>(m);
            s.next_in = d.in.data();
            s.avail_in = static_cast<uint32_t>(m);
        }
        if (isal_inflate(&s) < 0) return damaged("Compression error");
        const size_t made = n - s.avail_out;
        if (s.block_state == ISAL_BLOCK_FINISH) {
            d.finished = true;
            if (s.crc != d.crc) return damaged("CRC error");
            return static_cast<int64_t>(made);
        }
        if (made > 0) return static_cast<int64_t>(made);
        if (s.avail_in == 0 && d.left == 0) return damaged("Unexpected end of data");
    }
}

int64_t ZipReader::Stream::read(char* buf, size_t n) {
    if (!zf_) return -1;
    zip_int64_t k;
    if (deflated_) {
        k = inflate(buf, n);
        if (k < 0) return -1;
    } else {
        k = zip_fread(zf_, buf, n);
        if (k < 0) return damaged(zip_file_strerror(zf_));
    }
    got_ += static_cast<uint64_t>(k);
    if (got_ > limit_) {
        err_ = file_ + ": the part '" + part_ + "' inflates beyond " +
               (limit_ >= kMaxPartBytes ? MB(limit_) : std::to_string(kMaxRatio) + " times its compressed size") +
               " (a damaged file or a zip bomb).";
        return -1;
    }
    return k;
}

// ---------------------------------------------------------------- writer

namespace {

// Runs a generator on a second thread, a few pieces ahead, so that making
// the XML and deflating it overlap.
class Producer {
public:
    explicit Producer(ZipWriter::Generator gen) : gen_(std::move(gen)), th_([this] { run(); }) {}
    ~Producer() {
        {
            std::lock_guard<std::mutex> l(mu_);
            stop_ = true;
        }
        cv_.notify_all();
        th_.join();
    }
    // 1 a piece in out, 0 at the end, -1 when the generator failed.
    int next(std::string& out) {
        std::unique_lock<std::mutex> l(mu_);
        cv_.wait(l, [&] { return !q_.empty() || finished_; });
        if (!q_.empty()) {
            out.swap(q_.front());
            q_.pop_front();
            cv_.notify_all();
            return 1;
        }
        return failed_ ? -1 : 0;
    }

private:
    void run() {
        bool failed = false;
        try {
            for (bool more = true; more;) {
                std::string piece;
                more = gen_(piece);
                std::unique_lock<std::mutex> l(mu_);
                cv_.wait(l, [&] { return q_.size() < 4 || stop_; });
                if (stop_) break;
                if (!piece.empty()) q_.push_back(std::move(piece));
                cv_.notify_all();
            }
        } catch (...) {
            failed = true;
        }
        std::lock_guard<std::mutex> l(mu_);
        failed_ = failed;
        finished_ = true;
        cv_.notify_all();
    }

    ZipWriter::Generator gen_;
    std::mutex mu_;
    std::condition_variable cv_;
    std::deque<std::string> q_;
    bool stop_ = false, finished_ = false, failed_ = false;
    std::thread th_;  // last: starts when the rest is ready
};

struct GenSource {
    std::function<ZipWriter::Generator()> make;
    std::unique_ptr<Producer> prod;
    std::string buf;
    size_t pos = 0;
    bool done = false;
    zip_error_t err;
    GenSource() { zip_error_init(&err); }
    ~GenSource() { zip_error_fini(&err); }
};

zip_int64_t GenCallback(void* ud, void* data, zip_uint64_t len, zip_source_cmd_t cmd) {
    auto* g = static_cast<GenSource*>(ud);
    switch (cmd) {
    case ZIP_SOURCE_OPEN:
        try {
            g->prod.reset();
            g->prod = std::make_unique<Producer>(g->make());
        } catch (...) {
            zip_error_set(&g->err, ZIP_ER_MEMORY, 0);
            return -1;
        }
        g->buf.clear();
        g->pos = 0;
        g->done = false;
        return 0;
    case ZIP_SOURCE_READ: {
        char* out = static_cast<char*>(data);
        zip_uint64_t n = 0;
        while (n < len) {
            if (g->pos == g->buf.size()) {
                if (g->done || !g->prod) break;
                g->buf.clear();
                g->pos = 0;
                int k = g->prod->next(g->buf);
                if (k < 0) {
                    zip_error_set(&g->err, ZIP_ER_INTERNAL, 0);
                    return -1;
                }
                if (k == 0) g->done = true;
                continue;
            }
            size_t k = std::min<size_t>(len - n, g->buf.size() - g->pos);
            std::memcpy(out + n, g->buf.data() + g->pos, k);
            g->pos += k;
            n += k;
        }
        return static_cast<zip_int64_t>(n);
    }
    case ZIP_SOURCE_CLOSE:
        g->prod.reset();
        std::string().swap(g->buf);
        return 0;
    case ZIP_SOURCE_STAT: {
        auto* st = ZIP_SOURCE_GET_ARGS(zip_stat_t, data, len, &g->err);
        if (!st) return -1;
        zip_stat_init(st);
        st->mtime = time(nullptr);
        st->valid |= ZIP_STAT_MTIME;
        return sizeof(*st);
    }
    case ZIP_SOURCE_ERROR: return zip_error_to_data(&g->err, data, len);
    case ZIP_SOURCE_FREE: delete g; return 0;
    case ZIP_SOURCE_SUPPORTS: return ZIP_SOURCE_SUPPORTS_READABLE;
    default: zip_error_set(&g->err, ZIP_ER_OPNOTSUPP, 0); return -1;
    }
}

}  // namespace

ZipWriter::~ZipWriter() { discard(); }

void ZipWriter::discard() {
    if (za_) zip_discard(za_);
    za_ = nullptr;
}

Result<std::unique_ptr<ZipWriter>> ZipWriter::create(const std::string& path) {
    std::unique_ptr<ZipWriter> w(new ZipWriter);
    w->path_ = path;
    int err = 0;
    w->za_ = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &err);
    if (!w->za_) return Fail(ZipErrorText(err));
    return w;
}

bool ZipWriter::setup(int64_t idx) {
    if (idx < 0) {
        err_ = zip_strerror(za_);
        return false;
    }
    return true;
}

bool ZipWriter::addCopy(const std::string& name, const ZipReader& from, int64_t index) {
    // start 0 and length -1: the compressed data are copied as they stand.
    zip_source_t* src = zip_source_zip(za_, from.handle(), static_cast<zip_uint64_t>(index), 0, 0, -1);
    if (!src) {
        err_ = zip_strerror(za_);
        return false;
    }
    zip_int64_t idx = zip_file_add(za_, name.c_str(), src, ZIP_FL_ENC_UTF_8);
    if (idx < 0) {
        zip_source_free(src);
        err_ = zip_strerror(za_);
        return false;
    }
    return true;
}

// New and changed parts are deflated at a fast level.
bool ZipWriter::addDeflated(const std::string& name, zip_source_t* src) {
    const zip_int64_t idx = zip_file_add(za_, name.c_str(), src, ZIP_FL_ENC_UTF_8);
    if (idx < 0) {
        zip_source_free(src);
        err_ = zip_strerror(za_);
        return false;
    }
    zip_set_file_compression(za_, static_cast<zip_uint64_t>(idx), ZIP_CM_DEFLATE, 1);
    return setup(idx);
}

bool ZipWriter::addBytes(const std::string& name, std::string bytes) {
    buffers_.push_back(std::make_unique<std::string>(std::move(bytes)));
    const std::string& b = *buffers_.back();
    zip_source_t* src = zip_source_buffer(za_, b.data(), b.size(), 0);
    if (!src) {
        err_ = zip_strerror(za_);
        return false;
    }
    return addDeflated(name, src);
}

bool ZipWriter::addGenerated(const std::string& name, std::function<Generator()> make) {
    auto* g = new GenSource;
    g->make = std::move(make);
    zip_source_t* src = zip_source_function(za_, GenCallback, g);
    if (!src) {
        delete g;
        err_ = zip_strerror(za_);
        return false;
    }
    return addDeflated(name, src);
}

Status ZipWriter::close() {
    if (!za_) return Fail("the archive is closed");
    if (zip_close(za_) != 0) {
        std::string why = zip_strerror(za_);
        discard();
        return Fail(why);
    }
    za_ = nullptr;
    buffers_.clear();
    return StatusOk();
}

}  // namespace zorv::xlsx

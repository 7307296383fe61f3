// The line tokeniser every text reader uses, and the text stream under it.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "base/proc.h"

namespace zorv {

// A text file read line by line in large blocks. CR LF, LF and a lone CR
// each end a line, so a file from a Macintosh reads as lines too; the stream
// remembers that it saw one. A NUL byte marks the file as binary.
class TextStream {
public:
    TextStream() = default;
    ~TextStream();
    TextStream(const TextStream&) = delete;
    TextStream& operator=(const TextStream&) = delete;

    // Fails "Cannot open file: " and the path.
    [[nodiscard]] Status open(const std::string& path);
    void close();
    bool isOpen() const { return f_ != nullptr; }
    // The next line without its end; the view lives until the next call.
    // False at the end of the stream.
    bool readLine(std::string_view& line);
    bool atEnd();
    // The number of the line last read, from 1.
    long lineNumber() const { return line_; }
    bool sawLoneCR() const { return loneCR_; }
    bool sawNul() const { return nul_; }
    const std::string& path() const { return path_; }
    // Bytes of the file, for progress.
    long long size() const { return size_; }
    long long consumed() const { return consumed_; }

private:
    bool fill();
    std::FILE* f_ = nullptr;
    std::string path_;
    std::vector<char> buf_;
    static constexpr size_t kNone = static_cast<size_t>(-1);
    size_t pos_ = 0, end_ = 0;
    size_t lfAt_ = kNone, lfUntil_ = 0;  // next LF found, and how far the search for it went
    bool eof_ = false, loneCR_ = false, nul_ = false;
    long line_ = 0;
    long long size_ = 0, consumed_ = 0;
};

// Import(GetLine): reads one line and splits it into words by the steps of
// the tokeniser (delimiter search, "_" for an empty field, spaces inside a
// field joined by "_", quotes dropped). False at the end of the stream.
// `delimiter` may be changed to the one the line uses.
bool GetLine(TextStream& stream, std::string& line, std::string& delimiter, std::vector<std::string>& words);
// The same steps on a line in hand; `line` becomes the normalised text.
void TokeniseLine(std::string& line, std::string& delimiter, std::vector<std::string>& words);

// Import(GetLineFixed): a line of fixed columns, cut at the given start
// positions (0-based, ascending); the last field runs to the line's end.
// Each field is trimmed; an empty one is "_".
bool GetLineFixed(TextStream& stream, std::string& line, const std::vector<int>& starts,
                  std::vector<std::string>& words);
void CutFixed(std::string_view line, const std::vector<int>& starts, std::vector<std::string_view>& fields);

}  // namespace zorv

// A reporter for tests: keeps every box and status text instead of showing them.
#pragma once

#include <string>
#include <vector>

#include "base/report.h"

namespace zorv::testing {

class CaptureReporter : public Reporter {
public:
    int showBox(const std::string& message, int flag, const std::string& title) override {
        boxes.push_back(message);
        flags.push_back(flag);
        titles.push_back(title);
        return answer;
    }
    void status(const std::string& text) override { statuses.push_back(text); }
    std::string currentStatus() const override { return statusText(); }

    std::string statusText() const { return statuses.empty() ? std::string() : statuses.back(); }
    int lastFlags() const { return flags.empty() ? -1 : flags.back(); }
    bool saw(const std::string& part) const {
        for (const auto& b : boxes)
            if (b.find(part) != std::string::npos) return true;
        return false;
    }
    // Every box, one a line: for finding a text and for failure output.
    std::string joined() const {
        std::string all;
        for (const auto& b : boxes) all += b + "\n";
        return all;
    }
    void clear() {
        boxes.clear();
        flags.clear();
        titles.clear();
        statuses.clear();
    }

    std::vector<std::string> boxes, titles, statuses;
    std::vector<int> flags;
    int answer = 0;  // what every box answers; automation answers 0 too
};

// Installed while it lives; the default reporter comes back after.
class ScopedCapture : public CaptureReporter {
public:
    ScopedCapture() { SetReporter(this); }
    ~ScopedCapture() override { SetReporter(nullptr); }
    ScopedCapture(const ScopedCapture&) = delete;
    ScopedCapture& operator=(const ScopedCapture&) = delete;
};

}  // namespace zorv::testing

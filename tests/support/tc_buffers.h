// Exact-size heap buffers for the timecode tests: AddressSanitizer reports any byte past them.
#pragma once

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

// A result buffer of exactly 12 bytes, filled with 'X' (no NUL) so that a test sees what an
// operation left untouched and an unterminated result shows up in str().
class TcBuf {
  public:
    static constexpr size_t kSize = 12;

    TcBuf() : bytes_(new char[kSize]) { std::memset(bytes_.get(), 'X', kSize); }
    // A buffer holding `text` (at most 11 characters) and its NUL, for the in-place operations.
    explicit TcBuf(const std::string& text) : TcBuf() {
        std::memcpy(bytes_.get(), text.c_str(), std::min(text.size() + 1, kSize));
    }

    char* get() { return bytes_.get(); }
    // The text up to its NUL; "<never written>" if untouched, "<unterminated>..." if no NUL.
    std::string str() const {
        const char* end = static_cast<const char*>(std::memchr(bytes_.get(), '\0', kSize));
        if (end == nullptr) {
            const std::string all(bytes_.get(), kSize);
            return all == std::string(kSize, 'X') ? "<never written>" : "<unterminated>" + all;
        }
        return std::string(bytes_.get(), static_cast<size_t>(end - bytes_.get()));
    }

  private:
    std::unique_ptr<char[]> bytes_;
};

// A heap copy of `text` exactly as long as it and its NUL, so a read past the NUL is caught.
class HeapText {
  public:
    explicit HeapText(const std::string& text) : bytes_(new char[text.size() + 1]) {
        std::memcpy(bytes_.get(), text.c_str(), text.size() + 1);
    }
    const char* get() const { return bytes_.get(); }

  private:
    std::unique_ptr<char[]> bytes_;
};

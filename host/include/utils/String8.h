// The part of the platform's string that is used here. Debian's own, in its libutils, would bring
// the libraries of a stack unwinder and of an archiver into each program of the device, which take
// longer to load than all the rest.
#pragma once

#include <string>

namespace android {

class String8 {
  public:
    String8() = default;
    explicit String8(const char* text) : text_(text) {}

    void append(const String8& other) { text_ += other.text_; }
    void append(const char* text, size_t length) { text_.append(text, length); }
    const char* c_str() const { return text_.c_str(); }

  private:
    std::string text_;
};

}  // namespace android

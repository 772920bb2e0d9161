// Text that repeats across many files (content types, camera names), kept once for the whole run and
// named by one pointer from each file's facts. Kept text lives until the program ends; there are only
// ever a few hundred distinct values. A plain value; making one from new text may be done from
// several threads.
#pragma once
#include <ostream>
#include <string>
#include <string_view>

namespace vantle {

class SharedText {
  public:
    SharedText() = default;
    // Looks the text up among the kept ones, keeping it when new.
    SharedText(std::string_view text);
    SharedText(const std::string& text) : SharedText(std::string_view(text)) {}
    SharedText(const char* text) : SharedText(std::string_view(text)) {}
    // Names `lasting` without copying or looking it up: it must outlive every use (a static table's).
    static SharedText naming(const std::string_view& lasting) {
        SharedText out;
        out.text_ = &lasting;
        return out;
    }

    std::string_view view() const { return text_ ? *text_ : std::string_view(); }
    operator std::string_view() const { return view(); }
    explicit operator std::string() const { return std::string(view()); }
    bool empty() const { return view().empty(); }

    friend bool operator==(const SharedText& a, const SharedText& b) {
        return a.text_ == b.text_ || a.view() == b.view();
    }
    friend bool operator==(const SharedText& a, std::string_view b) { return a.view() == b; }
    friend bool operator==(const SharedText& a, const std::string& b) { return a.view() == b; }
    friend bool operator==(const SharedText& a, const char* b) { return a.view() == b; }
    friend std::ostream& operator<<(std::ostream& out, const SharedText& text) { return out << text.view(); }

  private:
    const std::string_view* text_ = nullptr;
};

} // namespace vantle

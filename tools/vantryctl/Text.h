#ifndef VANTRY_TOOLS_TEXT_H
#define VANTRY_TOOLS_TEXT_H

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

// Takes the first character off UTF-8 text that is not empty. A byte that begins none is taken alone, and `valid` is
// false.
struct Character {
    char32_t code = 0;
    std::string_view bytes;
    bool valid = true;
};
Character TakeCharacter(std::string_view& text);

// Text that a terminal shows as it is: control characters and what is no UTF-8 become escapes such as \n and \x1b. A
// stored text can so never steer the engineer's terminal.
std::string Visible(std::string_view text);

// Columns of a terminal that visible text takes.
int DisplayWidth(std::string_view text);

enum class Side { Left, Right };
// Visible text cut, with an ellipsis, to that many columns of a terminal; Fit() also fills it up to them.
std::string Cut(std::string_view text, int columns);
std::string Fit(std::string_view text, int columns, Side side = Side::Left);

// A text as JSON, with its quotes; what is no UTF-8 becomes U+FFFD.
std::string JsonText(std::string_view text);
// A text for the inside of an XML element or attribute; what XML cannot hold becomes U+FFFD.
std::string XmlText(std::string_view text);
std::string Hex(std::string_view bytes);

// "1 row", "322 rows", "1 234 567 rows".
std::string Count(std::uint64_t number, const std::string& thing);
std::string Grouped(std::uint64_t number);
// "120 KiB".
std::string Bytes(std::uint64_t bytes);
// "4 s", "12 min", "3 h", "9 d".
std::string Age(long long seconds);
// "2026-11-21 14:48:22", local time.
std::string LocalTime(std::time_t time);

// Joins "a", "b" and "c" by a separator.
template <typename Texts>
std::string Join(const Texts& texts, const std::string& separator) {
    std::string joined;
    for (const auto& text : texts) {
        joined += joined.empty() ? "" : separator;
        joined += text;
    }
    return joined;
}

#endif

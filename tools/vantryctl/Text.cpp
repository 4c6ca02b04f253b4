#include "Text.h"

#include <cwchar>

#include <array>
#include <cstdio>

namespace {

constexpr std::string_view ELLIPSIS = "…";
constexpr std::string_view REPLACEMENT = "\xEF\xBF\xBD";

bool IsControl(char32_t code) { return code < 0x20 || (code >= 0x7f && code < 0xa0); }

// Marks that turn the direction of the text after them: a terminal would show a name other than the stored one.
bool IsDirectionMark(char32_t code) {
    return code == 0x061c || code == 0x200e || code == 0x200f || (code >= 0x2028 && code <= 0x202e) ||
           (code >= 0x2066 && code <= 0x2069) || code == 0xfeff;
}

int WidthOf(char32_t code) {
    const int width = wcwidth(static_cast<wchar_t>(code));
    // A system without a UTF-8 locale knows no width.
    return width >= 0 ? width : 1;
}

template <typename... Arguments>
std::string Formatted(const char* format, Arguments... arguments) {
    std::array<char, 80> text{};
    std::snprintf(text.data(), text.size(), format, arguments...);
    return text.data();
}

}  // namespace

Character TakeCharacter(std::string_view& text) {
    const auto byteAt = [&text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byteAt(0);
    std::size_t length = 1;
    char32_t code = first;
    char32_t least = 0;
    if (first >= 0xf0 && first < 0xf5) {
        length = 4;
        code = first & 0x07U;
        least = 0x10000;
    } else if (first >= 0xe0 && first < 0xf0) {
        length = 3;
        code = first & 0x0fU;
        least = 0x800;
    } else if (first >= 0xc2 && first < 0xe0) {
        length = 2;
        code = first & 0x1fU;
        least = 0x80;
    }
    bool valid = first < 0x80 || length > 1;
    valid = valid && length <= text.size();
    for (std::size_t i = 1; valid && i < length; ++i) {
        valid = (byteAt(i) & 0xc0U) == 0x80U;
        code = (code << 6U) | (byteAt(i) & 0x3fU);
    }
    valid = valid && code >= least && code <= 0x10ffff && (code < 0xd800 || code > 0xdfff);
    if (!valid) {
        length = 1;
        code = first;
    }
    const Character character{code, text.substr(0, length), valid};
    text.remove_prefix(length);
    return character;
}

std::string Visible(std::string_view text) {
    std::string shown;
    shown.reserve(text.size());
    while (!text.empty()) {
        const Character character = TakeCharacter(text);
        if (character.code == '\n') {
            shown += "\\n";
        } else if (character.code == '\t') {
            shown += "\\t";
        } else if (character.code == '\r') {
            shown += "\\r";
        } else if (!character.valid || IsControl(character.code)) {
            shown += Formatted("\\x%02x", static_cast<unsigned>(character.code));
        } else if (IsDirectionMark(character.code)) {
            shown += Formatted("\\u%04x", static_cast<unsigned>(character.code));
        } else {
            shown += character.bytes;
        }
    }
    return shown;
}

int DisplayWidth(std::string_view text) {
    int width = 0;
    while (!text.empty()) {
        width += WidthOf(TakeCharacter(text).code);
    }
    return width;
}

std::string Cut(std::string_view text, int columns) {
    std::string_view rest = text;
    int used = 0;
    // Where the text ends when an ellipsis has to follow.
    std::size_t end = 0;
    while (!rest.empty()) {
        const std::size_t position = text.size() - rest.size();
        const int width = WidthOf(TakeCharacter(rest).code);
        if (used + width > columns) {
            return std::string(text.substr(0, end)) + std::string(columns > 0 ? ELLIPSIS : "");
        }
        used += width;
        end = used < columns ? position + (text.size() - position - rest.size()) : end;
    }
    return std::string(text);
}

std::string Fit(std::string_view text, int columns, Side side) {
    std::string cut = Cut(text, columns);
    const int rest = columns - DisplayWidth(cut);
    const std::string blanks(static_cast<std::size_t>(rest > 0 ? rest : 0), ' ');
    return side == Side::Left ? cut + blanks : blanks + cut;
}

std::string JsonText(std::string_view text) {
    std::string json = "\"";
    json.reserve(text.size() + 2);
    while (!text.empty()) {
        const Character character = TakeCharacter(text);
        if (!character.valid) {
            json += REPLACEMENT;
        } else if (character.code == '"' || character.code == '\\') {
            json += '\\';
            json += character.bytes;
        } else if (character.code == '\n') {
            json += "\\n";
        } else if (character.code < 0x20 || character.code == 0x7f) {
            json += Formatted("\\u%04x", static_cast<unsigned>(character.code));
        } else {
            json += character.bytes;
        }
    }
    return json + '"';
}

std::string XmlText(std::string_view text) {
    std::string xml;
    xml.reserve(text.size());
    while (!text.empty()) {
        const Character character = TakeCharacter(text);
        switch (character.valid ? character.code : 0) {
            case '&':
                xml += "&amp;";
                break;
            case '<':
                xml += "&lt;";
                break;
            case '>':
                xml += "&gt;";
                break;
            case '"':
                xml += "&quot;";
                break;
            case '\'':
                xml += "&#39;";
                break;
            default:
                xml += !character.valid || IsControl(character.code) || character.code == 0xfffe ||
                               character.code == 0xffff
                           ? REPLACEMENT
                           : character.bytes;
                break;
        }
    }
    return xml;
}

std::string Hex(std::string_view bytes) {
    std::string hex;
    hex.reserve(bytes.size() * 2);
    for (const char byte : bytes) {
        hex += Formatted("%02x", static_cast<unsigned>(static_cast<unsigned char>(byte)));
    }
    return hex;
}

std::string Grouped(std::uint64_t number) {
    std::string digits = std::to_string(number);
    for (std::size_t i = digits.size(); i > 3; i -= 3) {
        digits.insert(i - 3, 1, ' ');
    }
    return digits;
}

std::string Count(std::uint64_t number, const std::string& thing) {
    return Grouped(number) + ' ' + thing + (number == 1 ? "" : "s");
}

std::string Bytes(std::uint64_t bytes) {
    constexpr std::uint64_t STEP = 1024;
    if (bytes < 10 * STEP) {
        return Count(bytes, "byte");
    }
    if (bytes < 10 * STEP * STEP) {
        return Grouped(bytes / STEP) + " KiB";
    }
    return Grouped(bytes / STEP / STEP) + " MiB";
}

std::string Age(long long seconds) {
    constexpr long long MINUTE = 60;
    constexpr long long HOUR = 60 * MINUTE;
    constexpr long long DAY = 24 * HOUR;
    if (seconds < 2 * MINUTE) {
        return std::to_string(seconds < 0 ? 0 : seconds) + " s";
    }
    if (seconds < 2 * HOUR) {
        return std::to_string(seconds / MINUTE) + " min";
    }
    if (seconds < 2 * DAY) {
        return std::to_string(seconds / HOUR) + " h";
    }
    return std::to_string(seconds / DAY) + " d";
}

std::string LocalTime(std::time_t time) {
    std::tm parts{};
    std::array<char, 40> text{};
    if (localtime_r(&time, &parts) == nullptr ||
        std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts) == 0) {
        return "an unknown time";
    }
    return text.data();
}

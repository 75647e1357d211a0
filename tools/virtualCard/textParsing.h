/** Numbers and words out of configuration text; independent of the locale, whole words only. */
#pragma once

#include <charconv>
#include <string>
#include <string_view>
#include <vector>

namespace vcard
{

/** Reads all of @p text as a number. @return false, value unchanged, if any of it is no part of one */
template <typename Number> bool parseNumber(std::string_view text, Number& value)
{
    Number parsed{};
    if (!text.empty() && text.front() == '+')
        text.remove_prefix(1);
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), parsed);
    if (error != std::errc() || end != text.data() + text.size())
        return false;
    value = parsed;
    return true;
}

/** The words of @p text between blanks and commas. */
inline std::vector<std::string> splitWords(std::string_view text)
{
    std::vector<std::string> words;
    size_t start = 0;
    while ((start = text.find_first_not_of(" ,\t", start)) != std::string_view::npos) {
        const size_t end = std::min(text.find_first_of(" ,\t", start), text.size());
        words.emplace_back(text.substr(start, end - start));
        start = end;
    }
    return words;
}

} // namespace vcard

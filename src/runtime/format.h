#pragma once
// Type-safe formatting of the installer's printf-style message templates.
//
// The templates stay exactly as the log texts read ("Copy file '%s' -> '%s'.",
// " Error 0x%x.", "%02i"), but they never reach the C runtime's variadic printf:
// wide "%s" means different things to MSVC, MinGW and glibc, and a mismatched
// argument would crash the installer's custom-action server. Instead:
//   - FormatString<Args...> checks a literal template against the argument
//     types at compile time (a mismatch does not compile);
//   - FormatArgs() renders a template over type-tagged arguments at run time;
//     a specifier it cannot honour renders as "%!<spec>" instead of reading
//     memory it was not given.
//
// Supported conversions: d i u x X s S c %, flags '-' '0' '+' ' ' '#', a width,
// a precision, and the length modifiers h hh l ll w I64 (accepted, ignored:
// argument widths come from the types). Integers of any type go to d i u x X c;
// narrow and wide strings go to s and S alike (narrow text is read as UTF-8).

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>

namespace setup {

namespace format_detail {

enum class ArgKind { Integer, String };

// One type-tagged argument. String arguments borrow their text: an Arg must
// not outlive the value it was made from (Format keeps both alive for the call).
struct Arg {
    ArgKind kind;
    bool isSigned = false;
    int bytes = 0;               // width of the integer type: 1, 2, 4 or 8
    std::uint64_t bits = 0;      // the integer's value bits, sign-extended
    std::wstring_view wide;      // string argument given as wide text
    std::string_view narrow;     // string argument given as narrow text
    bool isNarrow = false;
};

template <class T>
constexpr bool IsWideString =
    std::is_same_v<T, std::wstring> || std::is_same_v<T, std::wstring_view> ||
    std::is_same_v<T, const wchar_t*> || std::is_same_v<T, wchar_t*>;

template <class T>
constexpr bool IsNarrowString =
    std::is_same_v<T, std::string> || std::is_same_v<T, std::string_view> ||
    std::is_same_v<T, const char*> || std::is_same_v<T, char*>;

template <class T>
constexpr bool IsInteger = std::is_integral_v<T> && !std::is_same_v<T, bool> &&
                           !std::is_same_v<T, wchar_t> && !std::is_same_v<T, char>;

template <class T>
using Decayed = std::decay_t<T>;

template <class T>
constexpr ArgKind KindOf() {
    using D = Decayed<T>;
    static_assert(IsWideString<D> || IsNarrowString<D> || IsInteger<D> || std::is_enum_v<D>,
                  "format arguments are integers or strings");
    if constexpr (IsWideString<D> || IsNarrowString<D>) {
        return ArgKind::String;
    } else {
        return ArgKind::Integer;
    }
}

template <class T>
Arg MakeArg(const T& value) {
    using D = Decayed<T>;
    Arg arg{};
    arg.kind = KindOf<T>();
    if constexpr (IsWideString<D>) {
        if constexpr (std::is_array_v<T>) {
            arg.wide = std::wstring_view(value);
        } else if constexpr (std::is_pointer_v<D>) {
            arg.wide = value ? std::wstring_view(value) : std::wstring_view(L"(null)");
        } else {
            arg.wide = value;
        }
    } else if constexpr (IsNarrowString<D>) {
        arg.isNarrow = true;
        if constexpr (std::is_array_v<T>) {
            arg.narrow = std::string_view(value);
        } else if constexpr (std::is_pointer_v<D>) {
            arg.narrow = value ? std::string_view(value) : std::string_view("(null)");
        } else {
            arg.narrow = value;
        }
    } else if constexpr (std::is_enum_v<D>) {
        using U = std::underlying_type_t<D>;
        return MakeArg(static_cast<U>(value));
    } else {
        arg.isSigned = std::is_signed_v<D>;
        arg.bytes = static_cast<int>(sizeof(D));
        if constexpr (std::is_signed_v<D>) {
            arg.bits = static_cast<std::uint64_t>(static_cast<std::int64_t>(value));
        } else {
            arg.bits = static_cast<std::uint64_t>(value);
        }
    }
    return arg;
}

// One parsed conversion specification.
struct Spec {
    bool leftAlign = false;
    bool zeroPad = false;
    bool plus = false;
    bool space = false;
    bool alternate = false;
    int width = 0;
    int precision = -1;
    wchar_t conversion = 0;  // 0 when the text after '%' is not a valid specification
    std::size_t length = 0;  // characters taken by the specification, '%' included
};

// Parses the specification that starts at text[pos] == '%'.
template <class CharT>
constexpr Spec ParseSpec(const CharT* text, std::size_t size, std::size_t pos) {
    Spec spec;
    std::size_t i = pos + 1;
    for (; i < size; ++i) {
        const CharT c = text[i];
        if (c == '-') spec.leftAlign = true;
        else if (c == '0') spec.zeroPad = true;
        else if (c == '+') spec.plus = true;
        else if (c == ' ') spec.space = true;
        else if (c == '#') spec.alternate = true;
        else break;
    }
    for (; i < size && text[i] >= '0' && text[i] <= '9'; ++i) {
        if (spec.width < 10000) spec.width = spec.width * 10 + static_cast<int>(text[i] - '0');
    }
    if (i < size && text[i] == '.') {
        spec.precision = 0;
        for (++i; i < size && text[i] >= '0' && text[i] <= '9'; ++i) {
            if (spec.precision < 10000) spec.precision = spec.precision * 10 + static_cast<int>(text[i] - '0');
        }
    }
    if (i + 2 < size && text[i] == 'I' && text[i + 1] == '6' && text[i + 2] == '4') {
        i += 3;
    } else {
        while (i < size && (text[i] == 'h' || text[i] == 'l' || text[i] == 'w')) ++i;
    }
    if (i < size) {
        switch (text[i]) {
        case 'd': case 'i': case 'u': case 'x': case 'X': case 's': case 'S': case 'c': case '%':
            spec.conversion = static_cast<wchar_t>(text[i]);
            spec.length = i + 1 - pos;
            return spec;
        default:
            break;
        }
    }
    spec.length = (i < size ? i + 1 : i) - pos;
    return spec;
}

constexpr bool Accepts(wchar_t conversion, ArgKind kind) {
    switch (conversion) {
    case 's': case 'S': return kind == ArgKind::String;
    case 'd': case 'i': case 'u': case 'x': case 'X': case 'c': return kind == ArgKind::Integer;
    default: return false;
    }
}

// True when every specification of the template is valid and consumes exactly
// the arguments of the given kinds, in order.
template <class CharT>
constexpr bool TemplateMatches(const CharT* text, std::initializer_list<ArgKind> kinds) {
    std::size_t size = 0;
    while (text[size] != 0) ++size;
    const ArgKind* next = kinds.begin();
    for (std::size_t i = 0; i < size;) {
        if (text[i] != '%') {
            ++i;
            continue;
        }
        const Spec spec = ParseSpec(text, size, i);
        if (spec.conversion == 0) return false;
        i += spec.length;
        if (spec.conversion == '%') continue;
        if (next == kinds.end() || !Accepts(spec.conversion, *next)) return false;
        ++next;
    }
    return next == kinds.end();
}

void ReportBadTemplate();  // never defined as constexpr: reaching it stops compilation

}  // namespace format_detail

// A template literal checked against Args at compile time.
template <class CharT, class... Args>
class BasicFormatString {
public:
    template <class S>
        requires std::is_convertible_v<const S&, const CharT*>
    consteval BasicFormatString(const S& text) : text_(text) {  // NOLINT: implicit by design
        if (!format_detail::TemplateMatches<CharT>(text_, {format_detail::KindOf<Args>()...})) {
            format_detail::ReportBadTemplate();  // the template does not fit the arguments
        }
    }
    constexpr const CharT* Get() const { return text_; }

private:
    const CharT* text_;
};

template <class... Args>
using FormatString = BasicFormatString<wchar_t, std::type_identity_t<Args>...>;
template <class... Args>
using NarrowFormatString = BasicFormatString<char, std::type_identity_t<Args>...>;

// Renders a wide template over the given arguments (see the top of this file).
std::wstring FormatArgs(std::wstring_view format, const format_detail::Arg* args, std::size_t count);

// UTF-8 to wide text (UTF-16 code units on Windows, code points elsewhere).
std::wstring Widen(std::string_view text);

template <class... Args>
std::wstring Format(FormatString<Args...> format, const Args&... args) {
    const format_detail::Arg packed[] = {format_detail::MakeArg(args)..., format_detail::Arg{}};
    return FormatArgs(format.Get(), packed, sizeof...(Args));
}

// A narrow template (the runtime's diagnostic channel) rendered as wide text.
template <class... Args>
std::wstring Format(NarrowFormatString<Args...> format, const Args&... args) {
    const format_detail::Arg packed[] = {format_detail::MakeArg(args)..., format_detail::Arg{}};
    return FormatArgs(Widen(format.Get()), packed, sizeof...(Args));
}

}  // namespace setup

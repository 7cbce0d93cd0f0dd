#include "runtime/format.h"

namespace setup {

namespace {

using format_detail::Arg;
using format_detail::ArgKind;
using format_detail::Spec;

void AppendCodePoint(std::wstring& out, char32_t cp) {
    if constexpr (sizeof(wchar_t) == 2) {
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out.push_back(static_cast<wchar_t>(0xD800 + (cp >> 10)));
            out.push_back(static_cast<wchar_t>(0xDC00 + (cp & 0x3FF)));
            return;
        }
    }
    out.push_back(static_cast<wchar_t>(cp));
}

void Pad(std::wstring& out, const Spec& spec, std::wstring_view body, std::wstring_view sign = {},
         bool zeroAllowed = false) {
    const std::size_t used = body.size() + sign.size();
    const std::size_t width = spec.width > 0 ? static_cast<std::size_t>(spec.width) : 0;
    const std::size_t fill = width > used ? width - used : 0;
    if (spec.leftAlign) {
        out.append(sign).append(body).append(fill, L' ');
    } else if (spec.zeroPad && zeroAllowed) {
        out.append(sign).append(fill, L'0').append(body);
    } else {
        out.append(fill, L' ').append(sign).append(body);
    }
}

void RenderInteger(std::wstring& out, const Spec& spec, const Arg& arg) {
    const int bits = arg.bytes * 8;
    const std::uint64_t mask = bits >= 64 ? ~std::uint64_t{0} : ((std::uint64_t{1} << bits) - 1);
    std::uint64_t magnitude = arg.bits & mask;
    std::wstring_view sign;
    const wchar_t c = spec.conversion;
    if (c == 'c') {
        std::wstring one;
        AppendCodePoint(one, static_cast<char32_t>(magnitude));
        Pad(out, spec, one);
        return;
    }
    if ((c == 'd' || c == 'i') && arg.isSigned) {
        const auto value = static_cast<std::int64_t>(arg.bits);
        if (value < 0) {
            sign = L"-";
            magnitude = static_cast<std::uint64_t>(0) - static_cast<std::uint64_t>(value);
        } else if (spec.plus) {
            sign = L"+";
        } else if (spec.space) {
            sign = L" ";
        }
    }
    const bool hex = c == 'x' || c == 'X';
    const wchar_t* digits = c == 'X' ? L"0123456789ABCDEF" : L"0123456789abcdef";
    const unsigned base = hex ? 16 : 10;
    wchar_t buffer[32];
    std::size_t n = 0;
    do {
        buffer[n++] = digits[magnitude % base];
        magnitude /= base;
    } while (magnitude != 0);
    std::wstring body;
    if (spec.precision > static_cast<int>(n)) body.append(static_cast<std::size_t>(spec.precision) - n, L'0');
    while (n > 0) body.push_back(buffer[--n]);
    if (spec.precision == 0 && arg.bits == 0) body.clear();
    if (hex && spec.alternate && (arg.bits & mask) != 0) sign = c == 'X' ? L"0X" : L"0x";
    Pad(out, spec, body, sign, spec.precision < 0);
}

void RenderString(std::wstring& out, const Spec& spec, const Arg& arg) {
    std::wstring converted;
    std::wstring_view text = arg.wide;
    if (arg.isNarrow) {
        converted = Widen(arg.narrow);
        text = converted;
    }
    if (spec.precision >= 0 && text.size() > static_cast<std::size_t>(spec.precision)) {
        text = text.substr(0, static_cast<std::size_t>(spec.precision));
    }
    Pad(out, spec, text);
}

}  // namespace

std::wstring FormatArgs(std::wstring_view format, const Arg* args, std::size_t count) {
    std::wstring out;
    out.reserve(format.size() + 16 * count);
    std::size_t next = 0;
    std::size_t i = 0;
    while (i < format.size()) {
        const std::size_t percent = format.find(L'%', i);
        if (percent == std::wstring_view::npos) {
            out.append(format.substr(i));
            break;
        }
        out.append(format.substr(i, percent - i));
        const Spec spec = format_detail::ParseSpec(format.data(), format.size(), percent);
        const std::wstring_view specText = format.substr(percent, spec.length);
        i = percent + spec.length;
        if (spec.conversion == '%') {
            out.push_back(L'%');
            continue;
        }
        if (spec.conversion == 0 || next >= count || !format_detail::Accepts(spec.conversion, args[next].kind)) {
            // A template that does not fit its arguments: show where, never guess.
            out.append(L"%!").append(specText.substr(specText.empty() ? 0 : 1));
            if (spec.conversion != 0 && next < count) ++next;
            continue;
        }
        const Arg& arg = args[next++];
        if (arg.kind == ArgKind::Integer) {
            RenderInteger(out, spec, arg);
        } else {
            RenderString(out, spec, arg);
        }
    }
    return out;
}

std::wstring Widen(std::string_view text) {
    std::wstring out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i]);
        char32_t cp = 0;
        std::size_t extra = 0;
        if (lead < 0x80) {
            cp = lead;
        } else if ((lead & 0xE0) == 0xC0) {
            cp = lead & 0x1F;
            extra = 1;
        } else if ((lead & 0xF0) == 0xE0) {
            cp = lead & 0x0F;
            extra = 2;
        } else if ((lead & 0xF8) == 0xF0) {
            cp = lead & 0x07;
            extra = 3;
        } else {
            out.push_back(static_cast<wchar_t>(0xFFFD));
            ++i;
            continue;
        }
        if (i + extra >= text.size()) {  // sequence cut off by the end of the text
            out.push_back(static_cast<wchar_t>(0xFFFD));
            break;
        }
        bool valid = true;
        for (std::size_t k = 1; k <= extra; ++k) {
            const auto cont = static_cast<unsigned char>(text[i + k]);
            if ((cont & 0xC0) != 0x80) {
                valid = false;
                break;
            }
            cp = (cp << 6) | (cont & 0x3F);
        }
        if (!valid || cp > 0x10FFFF) {
            out.push_back(static_cast<wchar_t>(0xFFFD));
            ++i;
            continue;
        }
        AppendCodePoint(out, cp);
        i += extra + 1;
    }
    return out;
}

}  // namespace setup

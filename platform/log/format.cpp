#include "platform/log/format.h"

#include <cinttypes>
#include <cstdio>
#include <vector>

namespace platform::log {

FormatArg::FormatArg(const QUrl& url)
    : kind_(url.isEmpty() ? Kind::Null : Kind::String), s_(url.toString().toStdString()) {}

FormatArg::FormatArg(const QVariant& value) : kind_(Kind::String) {
    if (!value.isValid() || value.isNull()) {
        kind_ = Kind::Null;
        return;
    }
    switch (value.typeId()) {
        case QMetaType::Bool:
        case QMetaType::Int:
        case QMetaType::LongLong:
        case QMetaType::Long:
        case QMetaType::Short:
        case QMetaType::SChar:
        case QMetaType::Char:
            kind_ = Kind::Signed;
            i_ = value.toLongLong();
            s_ = value.toString().toStdString();
            return;
        case QMetaType::UInt:
        case QMetaType::ULongLong:
        case QMetaType::ULong:
        case QMetaType::UShort:
        case QMetaType::UChar:
            kind_ = Kind::Unsigned;
            u_ = value.toULongLong();
            s_ = value.toString().toStdString();
            return;
        case QMetaType::Double:
        case QMetaType::Float:
            kind_ = Kind::Double;
            d_ = value.toDouble();
            s_ = value.toString().toStdString();
            return;
        default:
            s_ = value.toString().toStdString();
            if (s_.empty() && !value.canConvert<QString>()) {
                s_ = std::string("<") + value.typeName() + ">";
            }
    }
}

int64_t FormatArg::asSigned() const {
    switch (kind_) {
        case Kind::Signed:
            return i_;
        case Kind::Unsigned:
            return static_cast<int64_t>(u_);
        case Kind::Double:
            return static_cast<int64_t>(d_);
        case Kind::Pointer:
            return static_cast<int64_t>(reinterpret_cast<uintptr_t>(p_));
        default:
            return 0;
    }
}

uint64_t FormatArg::asUnsigned() const {
    return kind_ == Kind::Unsigned ? u_ : static_cast<uint64_t>(asSigned());
}

double FormatArg::asDouble() const {
    switch (kind_) {
        case Kind::Double:
            return d_;
        case Kind::Signed:
            return static_cast<double>(i_);
        case Kind::Unsigned:
            return static_cast<double>(u_);
        default:
            return 0;
    }
}

std::string FormatArg::asString() const {
    switch (kind_) {
        case Kind::String:
            return s_;
        case Kind::Null:
            return "(null)";
        case Kind::Signed:
            return std::to_string(i_);
        case Kind::Unsigned:
            return std::to_string(u_);
        case Kind::Double: {
            char buf[64];
            std::snprintf(buf, sizeof buf, "%g", d_);
            return buf;
        }
        case Kind::Pointer: {
            char buf[32];
            std::snprintf(buf, sizeof buf, "%p", p_);
            return buf;
        }
    }
    return {};
}

namespace {

constexpr std::string_view kMissing = "(missing)";

void appendNumber(std::string& out, const char* fmt, auto value) {
    char buf[64];
    const int n = std::snprintf(buf, sizeof buf, fmt, value);
    if (n > 0) {
        out.append(buf, static_cast<size_t>(std::min<int>(n, sizeof buf - 1)));
    }
}

}  // namespace

std::string formatMessage(std::string_view format, std::initializer_list<FormatArg> argList) {
    const FormatArg* args = argList.begin();
    const size_t argc = argList.size();
    size_t next = 0;
    std::string out;
    out.reserve(format.size() + 32);

    for (size_t i = 0; i < format.size(); ++i) {
        const char c = format[i];
        if (c != '%') {
            out.push_back(c);
            continue;
        }
        size_t j = i + 1;
        if (j < format.size() && format[j] == '%') {
            out.push_back('%');
            i = j;
            continue;
        }
        bool isPrivate = false;
        if (j < format.size() && format[j] == '{') {  // %{public}s, %{private}s
            const size_t close = format.find('}', j);
            if (close == std::string_view::npos) {
                out.append(format.substr(i));
                break;
            }
            isPrivate = format.substr(j + 1, close - j - 1) == "private";
            j = close + 1;
        }
        int precision = -1;
        while (j < format.size() && (format[j] == '-' || format[j] == '+' || format[j] == ' ' ||
                                     format[j] == '#' || format[j] == '0' ||
                                     (format[j] >= '1' && format[j] <= '9'))) {
            ++j;  // flags and width are accepted and ignored
        }
        if (j < format.size() && format[j] == '.') {
            precision = 0;
            for (++j; j < format.size() && format[j] >= '0' && format[j] <= '9'; ++j) {
                precision = std::min(precision * 10 + (format[j] - '0'), 64);
            }
        }
        int longs = 0;
        while (j < format.size() && (format[j] == 'l' || format[j] == 'h' || format[j] == 'z' ||
                                     format[j] == 'q' || format[j] == 'j' || format[j] == 't')) {
            if (format[j] == 'l' || format[j] == 'q' || format[j] == 'z' || format[j] == 'j' ||
                format[j] == 't') {
                ++longs;
            }
            ++j;
        }
        if (j >= format.size()) {
            out.append(format.substr(i));
            break;
        }
        const char conv = format[j];
        i = j;
        const FormatArg* arg = next < argc ? &args[next] : nullptr;
        switch (conv) {
            case 'd':
            case 'i':
            case 'u':
            case 'x':
            case 'X':
            case 'o':
            case 'c':
            case 'f':
            case 'F':
            case 'g':
            case 'G':
            case 'e':
            case 'E':
            case 's':
            case '@':
            case 'p':
                ++next;
                break;
            default:
                out.push_back('%');
                out.push_back(conv);
                continue;
        }
        if (arg == nullptr) {
            out.append(kMissing);
            continue;
        }
        if (isPrivate) {
            out.append("<private>");
            continue;
        }
        switch (conv) {
            case 'd':
            case 'i':
                if (longs == 0) {
                    appendNumber(out, "%" PRId32,
                                 static_cast<int32_t>(static_cast<uint32_t>(arg->asUnsigned())));
                } else {
                    appendNumber(out, "%" PRId64, arg->asSigned());
                }
                break;
            case 'u':
                if (longs == 0) {
                    appendNumber(out, "%" PRIu32, static_cast<uint32_t>(arg->asUnsigned()));
                } else {
                    appendNumber(out, "%" PRIu64, arg->asUnsigned());
                }
                break;
            case 'x':
            case 'X':
            case 'o': {
                const char* f = conv == 'x' ? "%" PRIx64 : conv == 'X' ? "%" PRIX64 : "%" PRIo64;
                const uint64_t v = longs == 0 ? static_cast<uint32_t>(arg->asUnsigned())
                                              : arg->asUnsigned();
                appendNumber(out, f, v);
                break;
            }
            case 'c':
                out.push_back(static_cast<char>(arg->asSigned()));
                break;
            case 'f':
            case 'F':
            case 'g':
            case 'G':
            case 'e':
            case 'E': {
                char f[16];
                std::snprintf(f, sizeof f, "%%.%d%c", precision < 0 ? 6 : precision, conv);
                if (precision < 0 && (conv == 'g' || conv == 'G')) {
                    std::snprintf(f, sizeof f, "%%%c", conv);
                }
                appendNumber(out, f, arg->asDouble());
                break;
            }
            case 's':
            case '@': {
                std::string s = arg->asString();
                if (precision >= 0 && conv == 's' && s.size() > static_cast<size_t>(precision)) {
                    s.resize(static_cast<size_t>(precision));
                }
                out.append(s);
                break;
            }
            case 'p':
                if (arg->kind() == FormatArg::Kind::Null) {
                    out.append("0x0");
                } else if (arg->pointer() != nullptr) {
                    appendNumber(out, "%p", arg->pointer());
                } else {
                    appendNumber(out, "0x%" PRIx64, arg->asUnsigned());
                }
                break;
            default:
                break;
        }
    }
    return out;
}

}  // namespace platform::log

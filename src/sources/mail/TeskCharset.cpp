// Charset conversion of MIME text parts to UTF-8, and UTF-8 validation and repair.
// Conversions go through ICU converters opened by IANA name with the STOP
// callback, so an invalid byte fails the part instead of becoming U+FFFD; only a
// part declared UTF-8 is repaired, its bad bytes becoming U+FFFD.
#include <unicode/ucnv.h>
#include <unicode/ucnv_err.h>
#include <unicode/ustring.h>

#include <array>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "sources/mail/TeskMail.h"

namespace TeskMail {
namespace {

struct ConverterClose {
  void operator()(UConverter* c) const { ucnv_close(c); }
};
using Converter = std::unique_ptr<UConverter, ConverterClose>;

bool equalsFolded(std::string_view a, std::string_view lower) {
  if (a.size() != lower.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    char c = a[i];
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if (c != lower[i]) return false;
  }
  return true;
}

// Names ICU knows under another name. Mail labelled gb2312 routinely holds GBK
// characters, and GBK decodes every valid GB2312 byte the same way; Mail's
// x-mac-ukrainian is the Mac Cyrillic table ICU calls x-MacUkraine.
std::string_view icuName(std::string_view name) {
  static constexpr std::pair<std::string_view, std::string_view> kAliases[] = {
      {"gb2312", "GBK"},
      {"x-mac-ukrainian", "x-MacUkraine"},
  };
  for (const auto& [alias, icu] : kAliases) {
    if (equalsFolded(name, alias)) return icu;
  }
  return name;
}

// Single-byte charsets that Mail's converter knows and ICU's data lacks: bytes
// 0x00-0x7F are ASCII, the upper half comes from a generated table.
#include "sources/mail/TeskCharsetTables.inc"

struct SingleByte {
  std::string_view name;  // lower case
  const std::array<char16_t, 128>* upper;
};
constexpr SingleByte kSingleByte[] = {
    {"iso-8859-16", &k_iso8859_16},
    {"iso_8859-16", &k_iso8859_16},
    {"iso_8859-16:2001", &k_iso8859_16},
    {"iso-ir-226", &k_iso8859_16},
    {"latin10", &k_iso8859_16},
    {"l10", &k_iso8859_16},
    {"koi8-ru", &k_koi8_ru},
    {"x-mac-icelandic", &k_mac_icelandic},
    {"x-mac-iceland", &k_mac_icelandic},
    {"macicelandic", &k_mac_icelandic},
    {"x-mac-croatian", &k_mac_croatian},
    {"maccroatian", &k_mac_croatian},
    {"x-mac-romanian", &k_mac_romanian},
    {"macromanian", &k_mac_romanian},
};

const std::array<char16_t, 128>* singleByteTable(std::string_view name) {
  for (const SingleByte& s : kSingleByte) {
    if (equalsFolded(name, s.name)) return s.upper;
  }
  return nullptr;
}

// Every byte of a single-byte charset is one BMP character.
std::string fromSingleByte(std::string_view bytes, const std::array<char16_t, 128>& upper) {
  std::string out;
  out.reserve(bytes.size() * 2);
  for (char byte : bytes) {
    const auto b = static_cast<unsigned char>(byte);
    if (b < 0x80) {
      out.push_back(byte);
      continue;
    }
    const char16_t cp = upper[b - 0x80];
    if (cp < 0x800) {
      out.push_back(static_cast<char>(0xC0 | cp >> 6));
    } else {
      out.push_back(static_cast<char>(0xE0 | cp >> 12));
      out.push_back(static_cast<char>(0x80 | (cp >> 6 & 0x3F)));
    }
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
  return out;
}

// The converter for `name`, kept open across calls: opening one costs more than
// converting a typical part. The program is single-threaded; each thread of a
// test runner gets its own.
UConverter* converterFor(std::string_view name, bool& known) {
  thread_local std::string lastName;
  thread_local Converter last;
  if (last && name == lastName) {
    known = true;
    ucnv_resetToUnicode(last.get());
    return last.get();
  }
  std::string z(icuName(name));
  UErrorCode status = U_ZERO_ERROR;
  Converter conv(ucnv_open(z.c_str(), &status));
  if (U_FAILURE(status) || !conv) {
    known = false;
    return nullptr;
  }
  status = U_ZERO_ERROR;
  ucnv_setToUCallBack(conv.get(), UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
  if (U_FAILURE(status)) {
    known = false;
    return nullptr;
  }
  known = true;
  lastName.assign(name);
  last = std::move(conv);
  return last.get();
}

bool isNamed(UConverter* conv, const char* canonicalName) {
  UErrorCode status = U_ZERO_ERROR;
  const char* canonical = ucnv_getName(conv, &status);
  return U_SUCCESS(status) && canonical != nullptr && std::strcmp(canonical, canonicalName) == 0;
}

bool isUTF8(UConverter* conv) { return isNamed(conv, "UTF-8"); }

bool isUTF8OrASCII(UConverter* conv) { return isUTF8(conv) || isNamed(conv, "US-ASCII"); }

// Converts with the STOP callback; nothing when any byte is invalid in `conv`.
std::optional<std::string> convert(UConverter* conv, std::string_view bytes) {
  // Every input byte yields at most two UTF-16 units (one surrogate pair per byte
  // or longer sequence); the input length is a real buffer size.
  std::u16string wide(bytes.size() * 2 + 2, u'\0');
  UErrorCode status = U_ZERO_ERROR;
  UChar* target = wide.data();
  const char* source = bytes.data();
  ucnv_toUnicode(conv, &target, wide.data() + wide.size(), &source, bytes.data() + bytes.size(),
                 nullptr, true, &status);
  if (U_FAILURE(status)) return std::nullopt;
  const int32_t units = static_cast<int32_t>(target - wide.data());
  std::string out;
  int32_t needed = 0;
  status = U_ZERO_ERROR;
  u_strToUTF8(nullptr, 0, &needed, wide.data(), units, &status);
  if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) return std::nullopt;
  out.resize(static_cast<size_t>(needed));
  status = U_ZERO_ERROR;
  u_strToUTF8(out.data(), needed, &needed, wide.data(), units, &status);
  if (U_FAILURE(status)) return std::nullopt;
  return out;
}

// IANA names use letters, digits and a little punctuation. ICU would read a
// separator as a path to a converter file and a comma as options; a header
// must reach neither, so any other name is simply unknown.
bool plausibleName(std::string_view name) {
  if (name.size() > 64) return false;
  for (char c : name) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '-' || c == '_' || c == '.' || c == ':' || c == '+' || c == '(' ||
                    c == ')';
    if (!ok) return false;
  }
  return true;
}

std::string_view trimSpaces(std::string_view s) {
  while (!s.empty() && s.front() == ' ') s.remove_prefix(1);
  while (!s.empty() && s.back() == ' ') s.remove_suffix(1);
  return s;
}

}  // namespace

std::optional<std::string> utf8(std::string_view bytes, std::optional<std::string_view> charset) {
  if (charset) {
    const std::string_view name = trimSpaces(*charset);
    if (!name.empty() && plausibleName(name)) {
      bool known = false;
      UConverter* conv = converterFor(name, known);
      if (known && conv != nullptr) {
        if (isUTF8OrASCII(conv)) {
          // Unchanged when valid; ASCII is a subset, so the UTF-8 check covers both
          // and the fallback below gives the same answer. A part declared UTF-8 keeps
          // its text when a byte is bad: that byte, not the body, is lost (U+FFFD).
          if (isValidUTF8(bytes)) return std::string(bytes);
          if (isUTF8(conv)) return repairUTF8(bytes);
          return std::nullopt;
        }
        if (auto converted = convert(conv, bytes)) return converted;
      } else if (const auto* upper = singleByteTable(name)) {
        return fromSingleByte(bytes, *upper);
      }
    }
  }
  if (isValidUTF8(bytes)) return std::string(bytes);
  return std::nullopt;
}

}  // namespace TeskMail

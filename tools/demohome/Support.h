// Files, dates and text helpers shared by the store writers.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace demohome {

// Creates the directory and its parents; throws on failure.
void makeDirs(const std::string& path);
// Writes the bytes to path (creating or truncating); throws on failure.
void writeFile(const std::string& path, std::string_view bytes);
// Sets access and modification time of an existing file; missing files are skipped.
void setMtime(const std::string& path, double unixSeconds);

// Days since 1970-01-01 of a proleptic Gregorian date, and back.
int64_t daysFromCivil(int64_t y, unsigned m, unsigned d);
void civilFromDays(int64_t z, int64_t& y, unsigned& m, unsigned& d);
// Unix seconds of a UTC wall-clock time.
int64_t utcSeconds(int64_t y, unsigned mo, unsigned d, unsigned h = 0, unsigned mi = 0,
                   unsigned s = 0);
// "2026-11-23T00:08:27Z", or with milliseconds "2026-11-23T00:08:27.250Z".
std::string iso(double unixSeconds, bool millis = false);
// RFC 5322 date in UTC offset form: "Mon, 23 Nov 2026 00:08:27 +0000".
std::string rfc822Date(int64_t unixSeconds, int offsetMinutes);

// Unicode helpers.
size_t utf16Length(std::string_view utf8);
std::string jsonEscape(std::string_view s);
std::string xmlEscape(std::string_view s);
std::string lowerAscii(std::string s);

}  // namespace demohome

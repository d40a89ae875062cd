#include "Rng.h"

#include <cmath>

namespace demohome {

size_t Rng::skewed(size_t n, double s) {
  if (n == 0) return 0;
  // Inverse-CDF of a continuous power law over [1, n+1): cheap and close enough
  // to a Zipf distribution for "a few people get most of the messages".
  const double u = uniform();
  double x;
  if (std::fabs(s - 1.0) < 1e-9) {
    x = std::exp(u * std::log(static_cast<double>(n) + 1.0));
  } else {
    const double a = 1.0 - s;
    x = std::pow(1.0 + u * (std::pow(static_cast<double>(n) + 1.0, a) - 1.0), 1.0 / a);
  }
  size_t i = static_cast<size_t>(x) - 1;
  return i >= n ? n - 1 : i;
}

std::string Rng::uuid() {
  static const char* digits = "0123456789ABCDEF";
  std::string out;
  out.reserve(36);
  for (int i = 0; i < 32; ++i) {
    if (i == 8 || i == 12 || i == 16 || i == 20) out.push_back('-');
    unsigned v = static_cast<unsigned>(next() & 15);
    if (i == 12) v = 4;
    if (i == 16) v = 8 | (v & 3);
    out.push_back(digits[v]);
  }
  return out;
}

std::string Rng::hex(size_t n) {
  static const char* digits = "0123456789abcdef";
  std::string out(n, '0');
  for (auto& c : out) c = digits[next() & 15];
  return out;
}

}  // namespace demohome

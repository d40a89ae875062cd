// The words of the demo home: message phrases, names, mail subjects, web pages.
// Some words recur on purpose ("dinner", "flight", "Résumé") so searches find them.
#pragma once

#include <string>
#include <vector>

#include "Rng.h"

namespace demohome {

const std::vector<std::string>& firstNames();
const std::vector<std::string>& lastNames();
const std::vector<std::string>& organizations();

// A realistic-sounding short message (sometimes accented, emoji or CJK).
std::string messageText(Rng& rng);
// A caption for a photo or file.
std::string captionText(Rng& rng);
// A shared link inside a message.
std::string linkText(Rng& rng);

struct WebPage {
  std::string url, title;
};
// Pages for the Chrome-like corpus (set 0), the Arc-like one (1) and Safari (2).
WebPage webPage(Rng& rng, int set);

}  // namespace demohome

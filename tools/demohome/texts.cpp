#include "Texts.h"

namespace demohome {

const std::vector<std::string>& firstNames() {
  static const std::vector<std::string> v = {
      "Jordan",  "Sam",      "Priya",   "Mateo",  "Chloé",  "Björn",  "Aisha",   "Liam",
      "Sofia",   "Noah",     "Emma",    "Olivia", "Lucas",  "Mia",    "Ethan",   "Ava",
      "Mason",   "Isabella", "Logan",   "Amelia", "José",   "Zoë",    "Renée",   "Søren",
      "Łukasz",  "Yuki",     "Hana",    "Wei",    "Mei",    "Arjun",  "Fatima",  "Omar",
      "Elena",   "Marco",    "Giulia",  "Lena",   "Felix",  "Clara",  "Hugo",    "Inès",
      "Daniel",  "Grace",    "Henry",   "Chloe",  "Jack",   "Lily",   "Oscar",   "Ruby",
      "Theo",    "Nora",     "Ravi",    "Ana",    "Diego",  "Camila", "Tomás",   "Lucía",
      "Kenji",   "Sakura",   "Min-jun", "Ji-woo", "Olu",    "Amara",  "Kofi",    "Zara",
      "Ibrahim", "Leila",    "Nikolai", "Anya",   "Mikael", "Freya",  "Patrick", "Siobhan",
      "Connor",  "Niamh",    "Finn",    "Maeve",  "Rosa",   "Pablo",  "Bea",     "Ezra"};
  return v;
}

const std::vector<std::string>& lastNames() {
  static const std::vector<std::string> v = {
      "Lee",      "Patel",     "García",    "Müller",   "Nguyen",  "Kim",     "Smith",
      "Johnson",  "Brown",     "Davis",     "Martínez", "Rossi",   "Dubois",  "Novak",
      "Kowalski", "Andersson", "O'Brien",   "Murphy",   "Tanaka",  "Suzuki",  "Chen",
      "Wang",     "Singh",     "Khan",      "Okafor",   "Mensah",  "Silva",   "Costa",
      "Fischer",  "Weber",     "Schneider", "Larsen",   "Nielsen", "Ivanova", "Petrov",
      "Cohen",    "Levi",      "Haddad",    "Rahman",   "Ali",     "Walker",  "Hall",
      "Young",    "King",      "Wright",    "Scott",    "Green",   "Baker",   "Adams",
      "Nelson",   "Hill",      "Campbell",  "Mitchell", "Roberts", "Carter",  "Phillips",
      "Evans",    "Turner",    "Torres",    "Parker",   "Collins", "Edwards", "Stewart",
      "Morris",   "Reyes",     "Ortiz",     "Yamamoto", "Sato",    "Park",    "Choi",
      "Zhang",    "Liu",       "Fernández", "López",    "Moreau"};
  return v;
}

const std::vector<std::string>& organizations() {
  static const std::vector<std::string> v = {
      "Blue Bottle Coffee", "City Dental Care",         "Dr. Patel's Office", "Mission Vet Clinic",
      "Sunset Plumbing",    "Golden Gate Dry Cleaning", "Harbor Auto Repair", "Bay Yoga Studio",
      "Corner Pharmacy",    "Lakeside Pediatrics",      "Northside Library",  "Oak Street Bakery"};
  return v;
}

namespace {

const std::vector<std::string>& phrases() {
  static const std::vector<std::string> v = {
      "Are we still on for dinner tonight?",
      "Running 10 min late, sorry!",
      "Can you pick up milk on the way home?",
      "My flight lands at 6:40, terminal 2",
      "Just boarded the flight ✈️",
      "Flight delayed again… ugh",
      "Dinner at 7 at the Thai place?",
      "Sounds good 👍",
      "Haha yes",
      "Call me when you get a chance",
      "Did you see the game last night?",
      "Happy birthday!! 🎉🎂",
      "Thanks so much, really appreciate it",
      "I sent you the Résumé, let me know what you think",
      "Updated my résumé with the new job, can you proofread?",
      "On my way",
      "Where are you parked?",
      "Let's do brunch Sunday",
      "The kids loved it",
      "Can't make it tonight, rain check?",
      "What time is the meeting tomorrow?",
      "Love you ❤️",
      "Good night 😴",
      "Good morning!",
      "Meet at the café at 3?",
      "Does Thursday work for dinner?",
      "Got the tickets 🎟️",
      "Booked the flight to Lisbon for March",
      "I'm at the grocery store, need anything?",
      "Remember to water the plants 🌱",
      "The package arrived",
      "Traffic is terrible on 101",
      "Let me check and get back to you",
      "No worries at all",
      "That's hilarious 😂",
      "Congrats on the new job!!",
      "Are you coming to the party Saturday?",
      "Can you send me the address?",
      "Heading out now",
      "Almost there",
      "Perfect, see you then",
      "How did the interview go?",
      "I'll bring dessert for dinner",
      "Which gate is your flight?",
      "Dinner reservation is under my name",
      "¿Nos vemos mañana para cenar?",
      "Gracias por todo 🙏",
      "On se retrouve au café à midi ?",
      "Merci beaucoup, c'était délicieux !",
      "Bis später, ich bin gleich da",
      "Schönes Wochenende!",
      "Obrigado pelo jantar ontem",
      "明日の会議は何時ですか？",
      "ありがとう！",
      "晚上一起吃饭吗？",
      "生日快乐！",
      "Can we move the call to 4:30?",
      "The Wi-Fi password is on the fridge",
      "Don't forget the dentist appointment",
      "I miss you guys",
      "Look what I found at the flea market",
      "Weather looks great for the hike ☀️",
      "Is the flight still on time?",
      "Let's split the bill for dinner",
      "Naïve question, but how does the rebate work?",
      "Their crème brûlée is the best in town",
  };
  return v;
}

const std::vector<std::string>& captions() {
  static const std::vector<std::string> v = {"Look at this view!",
                                             "From the trip",
                                             "Dinner tonight 🍝",
                                             "The résumé draft",
                                             "Boarding pass for the flight",
                                             "Our new couch",
                                             "Birthday cake 🎂",
                                             "Receipt",
                                             "Screenshot of the schedule",
                                             "Sunset at the beach 🌅"};
  return v;
}

}  // namespace

std::string messageText(Rng& rng) {
  std::string s = rng.pick(phrases());
  if (rng.chance(0.18)) s += " " + rng.pick(phrases());
  return s;
}

std::string captionText(Rng& rng) { return rng.pick(captions()); }

std::string linkText(Rng& rng) {
  static const std::vector<std::string> v = {
      "https://www.nytimes.com/2026/03/14/travel/lisbon-weekend.html",
      "https://maps.apple.com/?address=1+Ferry+Building,+San+Francisco&ll=37.7955,-122.3937",
      "https://www.youtube.com/watch?v=dQw4w9WgXcQ",
      "https://en.wikipedia.org/wiki/Pastel_de_nata",
      "https://www.opentable.com/r/kin-khao-san-francisco",
      "https://github.com/sqlite/sqlite",
      "https://www.airbnb.com/rooms/12345678",
      "https://www.bbc.co.uk/news/technology"};
  std::string url = rng.pick(v);
  return rng.chance(0.5) ? url : "Check this out " + url;
}

WebPage webPage(Rng& rng, int set) {
  struct Site {
    const char* base;
    const char* title;
  };
  static const std::vector<Site> chrome = {
      {"https://github.com/", "GitHub"},
      {"https://www.google.com/search?q=", "Google Search"},
      {"https://stackoverflow.com/questions/", "Stack Overflow"},
      {"https://en.wikipedia.org/wiki/", "Wikipedia"},
      {"https://mail.google.com/mail/u/0/#inbox/", "Inbox - Gmail"},
      {"https://docs.google.com/document/d/", "Google Docs"},
      {"https://www.youtube.com/watch?v=", "YouTube"},
      {"https://news.ycombinator.com/item?id=", "Hacker News"},
      {"https://developer.apple.com/documentation/", "Apple Developer Documentation"},
      {"https://en.cppreference.com/w/cpp/", "cppreference.com"},
      {"https://www.sqlite.org/", "SQLite"},
      {"https://www.amazon.com/dp/", "Amazon.com"},
      {"https://www.reddit.com/r/", "Reddit"},
      {"https://calendar.google.com/calendar/u/0/r/week/", "Google Calendar"},
      {"https://www.nytimes.com/", "The New York Times"},
      {"https://www.booking.com/hotel/", "Booking.com"},
      {"https://www.united.com/en/us/flight-status/", "Flight status - United Airlines"},
  };
  static const std::vector<Site> arc = {
      {"https://www.figma.com/file/", "Figma"},
      {"https://linear.app/team/issue/", "Linear"},
      {"https://www.notion.so/", "Notion"},
      {"https://vercel.com/dashboard/", "Vercel"},
      {"https://www.producthunt.com/posts/", "Product Hunt"},
      {"https://dribbble.com/shots/", "Dribbble"},
      {"https://twitter.com/", "X"},
      {"https://www.theverge.com/", "The Verge"},
  };
  static const std::vector<Site> safari = {
      {"https://www.apple.com/", "Apple"},
      {"https://www.icloud.com/", "iCloud"},
      {"https://www.bbc.co.uk/news/", "BBC News"},
      {"https://www.allrecipes.com/recipe/", "Allrecipes"},
      {"https://www.weather.com/weather/today/", "Weather"},
      {"https://www.tripadvisor.com/Restaurant_Review-", "Tripadvisor"},
  };
  static const std::vector<std::string> words = {
      "dinner-recipes", "cheap-flight-deals", "resume-template", "sqlite-wal-mode", "c%2B%2B20",
      "lisbon",         "typedstream",        "icu-converters",  "résumé-tips",     "weekend-hike",
      "coffee",         "flight-status",      "emoji",           "tokyo-itinerary", "bread",
      "kubernetes",     "running-shoes"};
  const auto& sites = set == 0 ? chrome : set == 1 ? arc : safari;
  const Site& s = sites[rng.skewed(sites.size(), 0.8)];
  const std::string& w = rng.pick(words);
  WebPage p;
  p.url =
      std::string(s.base) + w + (rng.chance(0.5) ? "" : "-" + std::to_string(rng.range(1, 400)));
  p.title = rng.chance(0.06) ? "" : w + " - " + s.title;
  return p;
}

}  // namespace demohome

// Index rows reconciled with the body files on disk, mailbox by mailbox. This
// walks the data directories, so no verb's read path ever calls it.
#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <system_error>

#include "sources/mail/TeskMail.h"
#include "store/TeskStore.h"

namespace TeskMail {
namespace {

// The ROWID a body file name carries ("123.emlx", "123.partial.emlx").
struct BodyFile {
  int64_t rowid = 0;
  bool partial = false;
};

std::optional<BodyFile> bodyFile(std::string_view name) {
  static constexpr std::string_view emlx = ".emlx";
  static constexpr std::string_view partial = ".partial";
  if (!name.ends_with(emlx)) return std::nullopt;
  name.remove_suffix(emlx.size());
  BodyFile f;
  if (name.ends_with(partial)) {
    f.partial = true;
    name.remove_suffix(partial.size());
  }
  if (name.empty() || name.size() > 18) return std::nullopt;
  for (char c : name) {
    if (c < '0' || c > '9') return std::nullopt;
    f.rowid = f.rowid * 10 + (c - '0');
  }
  return f;
}

}  // namespace

std::optional<Ledger> ledger(const std::string& home) {
  const auto index = indexPath(home);
  if (!index) return std::nullopt;
  try {
    TeskStore store(*index);
    const std::string versionRoot =
        std::filesystem::path(*index).parent_path().parent_path().string();
    std::vector<Mailbox> boxes;
    try {
      store.query("SELECT ROWID, url FROM mailboxes", [&](const TeskRowReader& r) {
        const auto url = r.textView(1);
        if (!url) return;
        if (auto box = mailbox(r.integer(0), *url)) boxes.push_back(std::move(*box));
      });
    } catch (const TeskStoreError&) {
    }
    std::map<int64_t, std::set<int64_t>> rowsByBox;
    try {
      store.query("SELECT mailbox, ROWID FROM messages",
                  [&](const TeskRowReader& r) { rowsByBox[r.integer(0)].insert(r.integer(1)); });
    } catch (const TeskStoreError&) {
    }
    // By name, then id: the order a person reading the ledger looks for.
    std::sort(boxes.begin(), boxes.end(), [](const Mailbox& a, const Mailbox& b) {
      return a.name != b.name ? a.name < b.name : a.id < b.id;
    });
    Ledger out;
    for (const Mailbox& box : boxes) {
      Ledger::Entry entry;
      entry.mailbox = box.name;
      const std::set<int64_t>& rows = rowsByBox[box.id];
      entry.indexRows = static_cast<int64_t>(rows.size());
      std::set<int64_t> found;
      if (const auto root = dataRoot(box, versionRoot)) {
        std::error_code ec;
        std::filesystem::recursive_directory_iterator it(
            *root, std::filesystem::directory_options::skip_permission_denied, ec);
        for (; !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
          if (!it->is_regular_file(ec)) continue;
          const auto file = bodyFile(it->path().filename().string());
          if (!file) continue;
          ++entry.files;
          if (file->partial) ++entry.partial;
          found.insert(file->rowid);
          if (!rows.count(file->rowid)) ++entry.orphans;
        }
      }
      for (int64_t rowid : rows) {
        if (!found.count(rowid)) entry.missing.push_back(rowid);
      }
      out.entries.push_back(std::move(entry));
    }
    return out;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace TeskMail

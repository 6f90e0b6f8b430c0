// What of a saved document was not restored, and how it is kept.
#include <algorithm>
#include <filesystem>
#include <unordered_map>

#include "EventManager.h"
#include "MR_log.h"
#include "MR_util.h"
#include "config/Secrets.h"
#include "config/Shape.h"
#include "config/StateFile.h"

namespace Server {

namespace Keys = EventManager::Strings;

namespace {

constexpr std::size_t MostNamed = 100;  // in one line of the log

struct EntryName {
    std::string Name;
    std::string Shown;  // in the log: without credentials
};

// Names the entries of a document in its order; two that cannot be told apart have the same name. One without
// a name, and what is of a wrong type, are named by their place, as no entry of a queue is.
class EntryNames {
  public:
    explicit EntryNames(const Velmora::PListDict& document) {
        Each(document, "", Keys::event_list, [this](const Velmora::PListDict& event, const std::string& at) {
            const std::string event_name = Name("event", event, Keys::event_name, Keys::event_data, at);
            Each(event, at, Keys::listener_list,
                 [&](const Velmora::PListDict& listener, const std::string& inside) {
                     Name("listener of " + event_name, listener, Keys::callback, Keys::listener_data, inside);
                 });
        });
        Each(document, "", Keys::timer_list, [this](const Velmora::PListDict& timer, const std::string& at) {
            Name("timer of event", timer, Keys::event_name, Keys::timer_data, at);
        });
        Each(document, "", Keys::watch_list, [this](const Velmora::PListDict& watch, const std::string& at) {
            Name("watch of", watch, Keys::path, Keys::watch_data, at);
        });
    }

    std::vector<EntryName> Names;

  private:
    template <class Entry>
    void Each(const Velmora::PListDict& dict, const std::string& base, const std::string& key,
              const Entry& entry) {
        const Velmora::PListItem* const list = dict.GetItem(key);
        if (list == nullptr) return;
        if (!list->HasType(Velmora::IT_ARRAY)) NamePlace(PointerTo(base, key));
        std::size_t index = 0;
        for (const Velmora::PListItem& item : dict.GetArray(key)) {
            const std::string at = PointerTo(PointerTo(base, key), index++);
            if (const Velmora::PListDict* const one = AsDict(&item)) {
                entry(*one, at);
            } else {
                NamePlace(at);
            }
        }
    }

    // What the entry is named for the log.
    std::string Name(const std::string& kind, const Velmora::PListDict& entry, const std::string& key,
                     const std::string& data_key, const std::string& at) {
        const std::string name = entry.GetData(key).Text();
        const std::string shown = key == Keys::callback ? WithoutCredentials(name) : name;
        const std::string named = name.empty() ? at : kind + " \"" + shown + "\"";
        Names.push_back({name.empty() ? at : kind + " \"" + name + "\"", named});
        const Velmora::PListItem* const data = entry.GetItem(data_key);
        if (data != nullptr && AsDict(data) == nullptr) NamePlace(PointerTo(at, data_key));
        return named;
    }

    void NamePlace(const std::string& at) { Names.push_back({at, at}); }
};

std::string Listed(const std::vector<std::string>& names) {
    std::string text;
    for (std::size_t i = 0; i < std::min(names.size(), MostNamed); ++i) text += (i ? ", " : "") + names[i];
    if (names.size() > MostNamed) text += " and " + std::to_string(names.size() - MostNamed) + " more";
    return text;
}

// "20260301T120000Z"
std::string CompactTime() {
    std::string text = Mirel::Timestamp().Text().substr(0, sizeof "YYYY-MM-DDThh:mm:ss" - 1);
    std::erase_if(text, [](char c) { return c == '-' || c == ':'; });
    return text + "Z";
}

std::string UnusedPath(const std::string& path) {
    std::string unused = path;
    for (int n = 2; std::filesystem::exists(unused); ++n) unused = path + "-" + std::to_string(n);
    return unused;
}

Mirel::Result_t Copy(const std::string& from, const std::string& to) {
    std::string text;
    const Mirel::Result_t read = Mirel::ReadFileIntoString(from, text, StateFileLimit);
    if (read.Failure()) return read;
    const Mirel::Result_t written = Mirel::WriteStringIntoNewFile(to, text, from);
    return written.Failure() ? written : Mirel::SyncFolderOf(to);
}

}  // namespace

std::vector<std::string> LeftOut(const Velmora::PListDict& document, const Velmora::PListDict& queue) {
    std::unordered_map<std::string, std::size_t> there;
    for (EntryName& entry : EntryNames(queue).Names) ++there[std::move(entry.Name)];
    std::vector<std::string> left_out;
    for (EntryName& entry : EntryNames(document).Names) {
        const auto found = there.find(entry.Name);
        if (found == there.end() || found->second == 0) {
            left_out.push_back(std::move(entry.Shown));
        } else {
            --found->second;
        }
    }
    return left_out;
}

Mirel::Result_t KeepStateFileBefore(const std::string& path, const std::vector<std::string>& left_out) {
    if (left_out.empty()) return Mirel::RESULT_OK;
    const std::string file = Mirel::FollowLinks(path);
    const std::string kept = UnusedPath(file + ".before-" + CompactTime());
    const Mirel::Result_t copied = Copy(file, kept);
    if (copied.Failure()) {
        return copied.WithMessage("Cannot keep what is not restored of the state file: " +
                                  std::string(copied.Message()));
    }
    Mirel::DefaultLogSink().Error(
        "%zu entries of \"%s\" are not restored: %s. The file from before is kept as \"%s\"\n",
        left_out.size(), path.c_str(), Listed(left_out).c_str(), kept.c_str());
    return Mirel::RESULT_OK;
}

}  // namespace Server

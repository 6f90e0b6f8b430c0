// Reads the environment and the settings file.
#include "terminal/Settings.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>

#include "VL_PList.h"
#include "terminal/Failure.h"

namespace Terminal {

namespace {

std::string Environment(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? "" : value;
}

std::string DefaultFile() {
    const std::string folder = Environment("XDG_CONFIG_HOME");
    if (!folder.empty()) return folder + "/velmora/client.json";
    const std::string home = Environment("HOME");
    return home.empty() ? "" : home + "/.config/velmora/client.json";
}

[[noreturn]] void RefuseFile(const std::string& path, const std::string& why) {
    throw Failure(ExitUsage, "The settings file \"" + path + "\" " + why + ".");
}

void TakeText(const Velmora::PListDict& file, const char* key, std::string& to, const std::string& path) {
    const Velmora::PListItem* item = file.GetItem(key);
    if (item == nullptr) return;
    if (!item->HasType(Velmora::IT_STRING))
        RefuseFile(path, std::string("has a \"") + key + "\" that is no text");
    if (to.empty()) to = file.GetData(key).Text();
}

void RefuseUnknown(const Velmora::PListDict& file, const std::string& path) {
    for (const auto& entry : file) {
        if (entry.key != "Address" && entry.key != "Token" && entry.key != "CAFile") {
            RefuseFile(path, "has the unknown member \"" + std::string(entry.key) + "\"");
        }
    }
}

// A token is a key: it must not lie about for everybody.
void RefuseOpenToken(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) == 0 && (status.st_mode & 077) != 0) {
        RefuseFile(path, "holds a token and can be read by others; let only its owner (chmod 600)");
    }
}

void ReadFile(const std::string& path, bool has_to_be, Settings& settings) {
    std::ifstream stream(path, std::ios::binary);
    if (!stream) {
        if (!has_to_be && errno == ENOENT) return;
        RefuseFile(path, std::string("cannot be read: ") + std::strerror(errno));
    }
    const std::string text{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    Velmora::Result_t why = Mirel::RESULT_OK;
    const std::unique_ptr<Velmora::PListItem> item = Velmora::PListItem::CreateFromJSON(text, &why);
    const auto* file = dynamic_cast<const Velmora::PListDict*>(item.get());
    if (file == nullptr)
        RefuseFile(path, item ? "is no JSON object" : std::string("is no JSON: ") + why.Message());
    RefuseUnknown(*file, path);
    if (file->HasItem("Token")) RefuseOpenToken(path);
    TakeText(*file, "Address", settings.Address, path);
    TakeText(*file, "Token", settings.Token, path);
    TakeText(*file, "CAFile", settings.CaFile, path);
}

}  // namespace

void CompleteSettings(Settings& settings) {
    if (settings.Address.empty()) settings.Address = Environment("VELMORA_URL");
    if (settings.Token.empty()) settings.Token = Environment("VELMORA_TOKEN");
    if (settings.CaFile.empty()) settings.CaFile = Environment("VELMORA_CA_FILE");
    if (settings.SettingsFile.empty()) settings.SettingsFile = Environment("VELMORA_CONFIG");
    const bool named = !settings.SettingsFile.empty();
    const std::string path = named ? settings.SettingsFile : DefaultFile();
    if (!path.empty()) ReadFile(path, named, settings);
    if (settings.Address.empty()) settings.Address = DefaultAddress;
    while (settings.Address.ends_with('/')) settings.Address.pop_back();
    if (!settings.Address.starts_with("http://") && !settings.Address.starts_with("https://")) {
        throw Failure(ExitUsage,
                      "\"" + settings.Address + "\" is no address of a server (http://… or https://…).");
    }
}

}  // namespace Terminal

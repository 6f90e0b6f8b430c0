// What the commands share.
#include "terminal/Commands.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>

#include "VL_PList.h"
#include "terminal/Failure.h"

namespace Terminal {

namespace {

std::string ReadAll(std::istream& stream) {
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

std::string ReadFile(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    if (!stream) throw Failure(ExitUsage, "\"" + path + "\" cannot be read: " + std::strerror(errno) + ".");
    return ReadAll(stream);
}

}  // namespace

std::string ReadData(const std::string& given) {
    if (given.empty()) return given;
    std::string text = given;
    if (given == "-") text = ReadAll(std::cin);
    if (given.starts_with('@')) text = ReadFile(given.substr(1));
    Velmora::Result_t why;
    const std::unique_ptr<Velmora::PListItem> item =
        Velmora::PListItem::CreateFromJSON(text, &why, Velmora::PListItem::AnyDepth);
    if (!item) throw Failure(ExitUsage, std::string("The data is no JSON: ") + why.Message());
    if (!item->HasType(Velmora::IT_DICT)) throw Failure(ExitUsage, "The data is no JSON object.");
    return text;
}

void PrintText(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    if (!text.empty() && !text.ends_with('\n')) std::fputc('\n', stdout);
}

std::string Object(std::initializer_list<std::pair<const char*, std::string>> members) {
    std::string text = "{";
    for (const auto& [name, value] : members) {
        if (value.empty()) continue;
        if (text.size() > 1) text += ", ";
        text += Quoted(name) + ": " + value;
    }
    return text + "}";
}

std::string Encoded(const Velmora::PListItem& item) {
    std::string json;
    const Velmora::Result_t result = item.EncodeJSON(json);
    if (result.Failure()) throw Failure(ExitUsage, result.Message());
    return json;
}

std::string Quoted(const std::string& text) {
    return Encoded(Velmora::PListData(text));
}

}  // namespace Terminal

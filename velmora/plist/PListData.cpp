// Scalars: their kinds, and values as numbers and as text.
#include <array>
#include <charconv>
#include <cmath>
#include <limits>
#include <system_error>

#include "MR_text.h"
#include "VL_PList.h"

namespace Velmora {

namespace {

template <class T>
CompactText<20> IntegerText(T value) {
    std::array<char, 24> buffer;
    return CompactText<20>({buffer.data(), std::to_chars(buffer.begin(), buffer.end(), value).ptr});
}

// The shortest text that reads back as the same number, and as a real.
CompactText<20> RealText(double value) {
    std::array<char, 32> buffer;
    char* end = std::to_chars(buffer.begin(), buffer.end() - 2, value).ptr;
    if (std::string_view(buffer.data(), end).find_first_of(".en") == std::string_view::npos) {
        *end++ = '.';
        *end++ = '0';
    }
    return CompactText<20>({buffer.data(), end});
}

template <class T>
bool ReadWhole(std::string_view text, T& value) {
    if (text.size() > 1 && text[0] == '+' && text[1] != '-') text.remove_prefix(1);
    const char* end = text.data() + text.size();
    const auto [ptr, error] = std::from_chars(text.data(), end, value);
    if (error == std::errc() && ptr == end) return true;
    value = 0;
    return false;
}

bool IsNumber(ItemType_t type) {
    return type == IT_INT || type == IT_INT64 || type == IT_REAL;
}

// The limits as reals: the lower one is exact, and so is the upper one plus 1, for 32 and for 64 bits.
template <class T>
bool CutToInteger(double real, T& value) {
    constexpr double Lowest = static_cast<double>(std::numeric_limits<T>::min());
    const double cut = std::trunc(real);
    if (!(cut >= Lowest && cut < -Lowest)) return false;
    value = static_cast<T>(cut);
    return true;
}

template <class T>
bool ReadInteger(const PListData& data, T& value) {
    value = 0;
    if (data.HasType(IT_TRUE) || data.HasType(IT_FALSE)) {
        value = data.HasType(IT_TRUE);
        return true;
    }
    if (ReadWhole(data.TextView(), value)) return true;
    double real;
    return data.HasType(IT_REAL) && data.GetValue(real) && CutToInteger(real, value);
}

}  // namespace

PListData::PListData() : PListItem(IT_STRING) {}
PListData::PListData(std::string_view text) : PListItem(IT_STRING), m_Text(text) {}
PListData::PListData(int value) : PListItem(IT_INT), m_Text(IntegerText(value)) {}
PListData::PListData(long long value) : PListItem(IT_INT64), m_Text(IntegerText(value)) {}
PListData::PListData(double value) : PListItem(IT_REAL), m_Text(RealText(value)) {}
PListData::PListData(bool value) : PListItem(value ? IT_TRUE : IT_FALSE), m_Text(value ? "true" : "false") {}

PListData::PListData(ItemType_t type, std::string_view text)
    : PListItem(type >= IT_STRING && type <= IT_NULL ? type : IT_STRING),
      m_Text(type == IT_TRUE    ? "true"
             : type == IT_FALSE ? "false"
             : type == IT_NULL  ? std::string_view()
                                : text) {}

PListData::PListData(const PListData&) = default;
PListData::PListData(PListData&&) noexcept = default;
PListData& PListData::operator=(const PListData&) = default;
PListData& PListData::operator=(PListData&& other) noexcept {
    m_type = other.m_type;
    m_Text = std::move(other.m_Text);
    return *this;
}
PListData::~PListData() = default;

PListItem* PListData::Copy() const {
    return new PListData(*this);
}

bool PListData::GetValue(bool& value) const {
    value = false;
    const std::string_view text = TextView();
    if (Mirel::EqualIgnoringCase(text, "true") || Mirel::EqualIgnoringCase(text, "yes")) {
        value = true;
        return true;
    }
    if (Mirel::EqualIgnoringCase(text, "false") || Mirel::EqualIgnoringCase(text, "no")) return true;
    double number;
    if (!GetValue(number) || std::isnan(number)) return false;
    value = number != 0;
    return true;
}

bool PListData::GetValue(int& value) const {
    return ReadInteger(*this, value);
}
bool PListData::GetValue(long long& value) const {
    return ReadInteger(*this, value);
}

bool PListData::GetValue(int& value, const int& default_value) const {
    const int otherwise = default_value;
    if (!TextView().empty()) return GetValue(value);
    value = otherwise;
    return false;
}

bool PListData::GetValue(double& value) const {
    value = 0;
    if (m_type == IT_TRUE || m_type == IT_FALSE) {
        value = m_type == IT_TRUE;
        return true;
    }
    // Words such as "infinity" are numbers only where a real was stored.
    if (!ReadWhole(TextView(), value)) return false;
    if (IsNumber(m_type) || std::isfinite(value)) return true;
    value = 0;
    return false;
}

void PListData::ForceType(const ItemType_t& type) {
    if (type == m_type || type < IT_STRING || type > IT_NULL) return;
    int integer = 0;
    long long integer64 = 0;
    double real = 0;
    switch (type) {
        case IT_INT:
            *this = PListData(GetValue(integer) ? integer : 0);
            break;
        case IT_INT64:
            *this = PListData(GetValue(integer64) ? integer64 : 0LL);
            break;
        case IT_REAL:
            *this = PListData(GetValue(real) ? real : 0.0);
            break;
        case IT_TRUE:
        case IT_FALSE:
        case IT_NULL:
            *this = PListData(type, {});
            break;
        default:
            m_type = type;
            break;
    }
}

}  // namespace Velmora

#include "deliveries/DeliveryDocument.h"

#include "MR_log.h"
#include "VL_PList.h"

namespace Server {

using Mirel::i64_t;
using Velmora::PListDict;
using Velmora::PListItem;

std::string AsText(const std::string& bytes) {
    std::string ignored;
    return Velmora::PListData(bytes).EncodeJSON(ignored).Success() ? bytes : Mirel::EscapeForLog(bytes);
}

namespace {

class Writer {
  public:
    template <class Number>
    void Add(const char* key, Number value) {
        m_Dict.SetValue(key, static_cast<long long>(value));
    }
    void AddText(const char* key, const std::string& text) { m_Dict.SetValue(key, text); }
    std::string Text() const {
        std::string text;
        return m_Dict.EncodeJSON(text).Success() ? text : std::string();
    }

  private:
    PListDict m_Dict;
};

template <class Number>
void Read(const PListDict& dict, const char* key, Number& number) {
    long long value = 0;
    if (dict.GetData(key).GetValue(value)) number = static_cast<Number>(value);
}

}  // namespace

std::string DocumentOf(const Delivery& delivery) {
    Writer writer;
    writer.AddText("state", DeliveryStateName(delivery.State));
    writer.Add("attempt", delivery.Attempt);
    writer.Add("time_us", delivery.Time_us);
    writer.Add("duration_ms", delivery.Duration_ms);
    writer.Add("status", delivery.Status);
    writer.AddText("reason", AsText(delivery.Reason));
    writer.AddText("answer", AsText(delivery.Answer));
    if (delivery.State == DeliveryState::Ok || delivery.State == DeliveryState::Failed) return writer.Text();
    writer.AddText("posting_id", delivery.PostingId);
    writer.AddText("event_name", delivery.EventName);
    writer.AddText("listener_id", delivery.ListenerId);
    writer.AddText("callback", delivery.Callback);
    writer.Add("method", delivery.Method);
    writer.AddText("body", *delivery.Body);
    writer.Add("attempts", delivery.Attempts);
    writer.Add("made_us", delivery.Made_us);
    writer.Add("next_us", delivery.Next_us);
    writer.Add("timeout_ms", delivery.Timeout_ms);
    return writer.Text();
}

std::optional<Delivery> DeliveryFrom(const std::string& document, Mirel::ui64_t id) {
    const auto item = PListItem::CreateFromJSON(document, nullptr, PListItem::AnyDepth);
    if (!item || !item->HasType(Velmora::IT_DICT)) return std::nullopt;
    const PListDict& dict = static_cast<const PListDict&>(*item);
    Delivery delivery;
    delivery.Id = id;
    const std::string state = dict.GetData("state").Text();
    for (const DeliveryState each :
         {DeliveryState::Ok, DeliveryState::Failed, DeliveryState::Dead, DeliveryState::Waiting}) {
        if (state == DeliveryStateName(each)) delivery.State = each;
    }
    if (state != DeliveryStateName(delivery.State)) return std::nullopt;
    Read(dict, "attempt", delivery.Attempt);
    Read(dict, "time_us", delivery.Time_us);
    Read(dict, "duration_ms", delivery.Duration_ms);
    Read(dict, "status", delivery.Status);
    delivery.Reason = dict.GetData("reason").Text();
    delivery.Answer = dict.GetData("answer").Text();
    delivery.PostingId = dict.GetData("posting_id").Text();
    delivery.EventName = dict.GetData("event_name").Text();
    delivery.ListenerId = dict.GetData("listener_id").Text();
    delivery.Callback = dict.GetData("callback").Text();
    Read(dict, "method", delivery.Method);
    delivery.Body = std::make_shared<const std::string>(dict.GetData("body").Text());
    Read(dict, "attempts", delivery.Attempts);
    Read(dict, "made_us", delivery.Made_us);
    Read(dict, "next_us", delivery.Next_us);
    Read(dict, "timeout_ms", delivery.Timeout_ms);
    return delivery;
}

}  // namespace Server

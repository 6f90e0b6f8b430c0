// What property lists cost: the hot path of every posting, and the operations that must not grow with the
// data.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <string>

#include "VL_PList.h"

namespace {

using Velmora::PListArray;
using Velmora::PListDict;
using Velmora::PListItem;

const std::string KPostData =
    R"({"sensor":"door-17","state":"open","reading":21.5,"note":"opened from outside by badge"})";
const std::string KTimestamp = "2026-03-01T12:00:00+00:00";

PListDict Parsed(const std::string& json) {
    return static_cast<const PListDict&>(*PListItem::CreateFromJSON(json));
}

PListDict Posting(const std::string& name, const PListDict& post_data, const PListDict& event_data) {
    PListDict payload;
    payload.SetValue("event_name", name);
    payload.SetValue("timestamp", KTimestamp);
    payload.SetItem("post_data", post_data);
    payload.SetItem("event_data", event_data);
    return payload;
}

PListDict Filled(long count) {
    PListDict dict;
    for (long i = 0; i < count; ++i) dict.SetValue("key" + std::to_string(i), static_cast<int>(i));
    return dict;
}

void Build(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(Filled(state.range(0)));
}
BENCHMARK(Build)->Arg(3)->Arg(100000);

void Copy(benchmark::State& state) {
    const PListDict dict = Filled(state.range(0));
    for (auto _ : state) {
        PListDict copy(dict);
        benchmark::DoNotOptimize(copy);
    }
}
BENCHMARK(Copy)->Arg(3)->Arg(100000);

void ReadEveryKey(benchmark::State& state) {
    const PListDict dict = Filled(state.range(0));
    int value = 0;
    for (auto _ : state) {
        for (long i = 0; i < state.range(0); ++i) {
            benchmark::DoNotOptimize(dict.GetData("key" + std::to_string(i)).GetValue(value));
        }
    }
}
BENCHMARK(ReadEveryKey)->Arg(3)->Arg(100000);

void RemoveEveryKey(benchmark::State& state) {
    for (auto _ : state) {
        PListDict dict = Filled(state.range(0));
        for (long i = 0; i < state.range(0); ++i) dict.DeleteItem("key" + std::to_string(i));
    }
}
BENCHMARK(RemoveEveryKey)->Arg(3)->Arg(100000);

// Built, recorded in a history of 1,000 and, when it falls out of it, destroyed.
void PostingBuildRecordDestroy(benchmark::State& state) {
    const PListDict post_data = Parsed(KPostData);
    const PListDict event_data;
    const std::string name = "door.opened";
    PListArray history;
    for (auto _ : state) {
        history.Append(Posting(name, post_data, event_data));
        if (history.Size() > 1000) history.DeleteFirst();
    }
}
BENCHMARK(PostingBuildRecordDestroy);

void PostingEncode(benchmark::State& state) {
    const PListDict posting = Posting("door.opened", Parsed(KPostData), {});
    std::string out;
    for (auto _ : state) {
        (void)posting.EncodeJSON(out);
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["bytes"] = static_cast<double>(out.size());
}
BENCHMARK(PostingEncode);

void PostDataRead(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(PListItem::CreateFromJSON(KPostData));
}
BENCHMARK(PostDataRead);

// Memory of a record whose post_data came as JSON text of its own.
void HistoryRecordBytes(benchmark::State& state) {
    const long count = state.range(0);
    for (auto _ : state) {
        const std::size_t before = mallinfo2().uordblks;
        PListArray history;
        for (long i = 0; i < count; ++i) history.Append(Posting("door.opened", Parsed(KPostData), {}));
        const double bytes = static_cast<double>(mallinfo2().uordblks - before);
        state.counters["bytes/record"] = bytes / static_cast<double>(count);
    }
}
BENCHMARK(HistoryRecordBytes)->Arg(1000000)->Iterations(1)->Unit(benchmark::kMillisecond);

PListArray History(long count) {
    const PListDict posting = Posting("door.opened", Parsed(KPostData), {});
    PListArray history;
    for (long i = 0; i < count; ++i) history.Append(posting);
    return history;
}

// All but one item of a long array leave; what is timed would run under a lock.
void TakeFirst(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        PListArray history = History(state.range(0));
        state.ResumeTiming();
        PListArray taken = history.TakeFirst(history.Size() - 1);
        state.PauseTiming();
        taken.Clear();
        history.Clear();
        state.ResumeTiming();
    }
}
BENCHMARK(TakeFirst)->Arg(1000)->Arg(1000000)->Iterations(20)->Unit(benchmark::kMicrosecond);

void CopyThenAppend(benchmark::State& state) {
    PListArray history = History(state.range(0));
    const PListDict posting = Posting("door.opened", Parsed(KPostData), {});
    for (auto _ : state) {
        PListArray copy(history);
        history.Append(posting);
        benchmark::DoNotOptimize(copy);
    }
}
BENCHMARK(CopyThenAppend)->Arg(1000)->Arg(1000000)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();

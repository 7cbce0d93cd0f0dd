// Custom action data codec throughput: encode and decode of 1 MB and 16 MB
// payloads (UTF-16 bytes: two per character), flat and nested three levels deep
// as the features nest them. Run by scripts/bench on an optimised build.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>
#include <vector>

#include <malloc.h>

#include "runtime/action_data.h"

namespace {

using setup::PropertyMap;

// Text of `chars` characters with a separator of every level about every 64
// characters, so escaping is exercised without dominating.
std::wstring Payload(std::size_t chars, unsigned seed) {
    static const wchar_t separators[] = L"|=;*^>";
    std::wstring text(chars, L'a');
    for (std::size_t i = 0; i < chars; ++i) {
        text[i] = static_cast<wchar_t>(L'a' + (i * 7 + seed) % 26);
        if ((i + seed) % 64 == 63) text[i] = separators[(i / 64) % 6];
    }
    return text;
}

constexpr std::size_t kValueChars = 2048;

PropertyMap FlatMap(std::size_t bytes) {
    PropertyMap map;
    const std::size_t values = bytes / 2 / kValueChars;
    for (std::size_t i = 0; i < values; ++i) map.Set(setup::ListKey(i), Payload(kValueChars, static_cast<unsigned>(i)));
    return map;
}

// Records of four keys at the record level, in a list, under one action-data key.
std::vector<PropertyMap> Records(std::size_t bytes) {
    std::vector<PropertyMap> records;
    const std::size_t count = bytes / 2 / kValueChars;
    for (std::size_t i = 0; i < count; ++i) {
        PropertyMap r;
        r.Set(L"path", L"C:\\Program Files\\Product\\file" + std::to_wstring(i) + L".txt");
        r.Set(L"rbf", L"");
        r.Set(L"content", Payload(kValueChars - 40, static_cast<unsigned>(i)));
        r.Set(L"atr", 0);
        records.push_back(std::move(r));
    }
    return records;
}

std::wstring Nested(const std::vector<PropertyMap>& records) {
    PropertyMap top;
    top.Set(L"files", setup::EncodeRecordList(records));
    top.Set(L"pfr", L"");
    return setup::EncodeActionData(top);
}

void EncodeFlat(benchmark::State& state) {
    const PropertyMap map = FlatMap(static_cast<std::size_t>(state.range(0)));
    std::size_t chars = 0;
    for (auto _ : state) {
        std::wstring text = setup::EncodeActionData(map);
        chars = text.size();
        benchmark::DoNotOptimize(text.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * chars * 2));
}

void DecodeFlat(benchmark::State& state) {
    const std::wstring text = setup::EncodeActionData(FlatMap(static_cast<std::size_t>(state.range(0))));
    for (auto _ : state) {
        PropertyMap map = setup::DecodeActionData(text);
        benchmark::DoNotOptimize(map.Size());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size() * 2));
}

void EncodeThreeLevels(benchmark::State& state) {
    const std::vector<PropertyMap> records = Records(static_cast<std::size_t>(state.range(0)));
    std::size_t chars = 0;
    for (auto _ : state) {
        std::wstring text = Nested(records);
        chars = text.size();
        benchmark::DoNotOptimize(text.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * chars * 2));
}

void DecodeThreeLevels(benchmark::State& state) {
    const std::wstring text = Nested(Records(static_cast<std::size_t>(state.range(0))));
    for (auto _ : state) {
        const PropertyMap top = setup::DecodeActionData(text);
        std::vector<PropertyMap> records = setup::DecodeRecordList(top.View(L"files"));
        benchmark::DoNotOptimize(records.size());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size() * 2));
}

constexpr int64_t kMB = 1 << 20;

}  // namespace

BENCHMARK(EncodeFlat)->Arg(kMB)->Arg(16 * kMB)->Unit(benchmark::kMillisecond);
BENCHMARK(DecodeFlat)->Arg(kMB)->Arg(16 * kMB)->Unit(benchmark::kMillisecond);
BENCHMARK(EncodeThreeLevels)->Arg(kMB)->Arg(16 * kMB)->Unit(benchmark::kMillisecond);
BENCHMARK(DecodeThreeLevels)->Arg(kMB)->Arg(16 * kMB)->Unit(benchmark::kMillisecond);
int main(int argc, char** argv) {
    // UTILS_BENCH_REUSE_MEMORY=1 keeps freed memory in the process, so the
    // figures show the codec's own work rather than the kernel zeroing fresh
    // pages for every multi-megabyte string (glibc maps them anew each time).
    if (const char* reuse = std::getenv("UTILS_BENCH_REUSE_MEMORY"); reuse && *reuse == '1') {
        mallopt(M_MMAP_THRESHOLD, 1 << 30);
        mallopt(M_TRIM_THRESHOLD, 1 << 30);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

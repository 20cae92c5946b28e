// The steps of xml_once over and over in one process, with memory and caches warm: what a library
// costs when the first use of its pages is not counted.

#include "tests/bench/export_generator.h"
#include "tests/bench/peers.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace {

struct Size {
    const char* name;
    std::size_t bytes;
};

constexpr std::array kSizes = {Size{"0.1 MB", 100'000}, Size{"1 MB", 1'000'000},
                               Size{"10 MB", 10'000'000}, Size{"100 MB", 100'000'000}};

const std::string& document_of(std::size_t bytes) {
    static std::map<std::size_t, std::string> documents;
    std::string& text = documents[bytes];
    if (text.empty()) {
        text = export_of_bytes("rdesktop", bytes);
    }
    return text;
}

void count_bytes(benchmark::State& state, const std::string& text) {
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

void bench_parse(benchmark::State& state, const XmlPeerRow& row, std::size_t bytes) {
    const std::string& text = document_of(bytes);
    for (auto step : state) {
        std::unique_ptr<XmlPeer> peer = row.make();
        peer->Parse(text);
        state.PauseTiming();
        peer.reset();
        state.ResumeTiming();
    }
    count_bytes(state, text);
}

void bench_print(benchmark::State& state, const XmlPeerRow& row, std::size_t bytes) {
    const std::string& text = document_of(bytes);
    for (auto step : state) {
        state.PauseTiming();
        std::unique_ptr<XmlPeer> peer = row.make();
        peer->Parse(text);
        state.ResumeTiming();
        benchmark::DoNotOptimize(peer->Print());
        state.PauseTiming();
        peer.reset();
        state.ResumeTiming();
    }
    count_bytes(state, text);
}

void bench_destroy(benchmark::State& state, const XmlPeerRow& row, std::size_t bytes) {
    const std::string& text = document_of(bytes);
    for (auto step : state) {
        state.PauseTiming();
        std::unique_ptr<XmlPeer> peer = row.make();
        peer->Parse(text);
        peer->Print();
        state.ResumeTiming();
        peer.reset();
    }
    count_bytes(state, text);
}

void bench_all(benchmark::State& state, const XmlPeerRow& row, std::size_t bytes) {
    const std::string& text = document_of(bytes);
    for (auto step : state) {
        std::unique_ptr<XmlPeer> peer = row.make();
        peer->Parse(text);
        benchmark::DoNotOptimize(peer->Print());
        peer.reset();
    }
    count_bytes(state, text);
}

using Operation = void (*)(benchmark::State&, const XmlPeerRow&, std::size_t);

struct OperationRow {
    const char* name;
    bool needs_tree;
    Operation run;
};

constexpr std::array kOperations = {OperationRow{"parse", false, bench_parse},
                                    OperationRow{"print", true, bench_print},
                                    OperationRow{"destroy", true, bench_destroy},
                                    OperationRow{"parse+print+destroy", true, bench_all}};

// Chosen by the size, not by the time measured: what stands outside of the measured time, making
// the tree that is destroyed for one, costs far more than what is measured.
benchmark::IterationCount iterations_for(std::size_t bytes) {
    constexpr std::size_t bytes_a_run = 20'000'000;
    return static_cast<benchmark::IterationCount>(std::max<std::size_t>(bytes_a_run / bytes, 2));
}

// OPERATION/SIZE/LIBRARY, the order in which they are compared.
void register_all() {
    for (const OperationRow& operation : kOperations) {
        for (const Size& size : kSizes) {
            for (const XmlPeerRow& row : xml_peers()) {
                if (operation.needs_tree && !row.builds_tree) {
                    continue;
                }
                const std::string name =
                    std::string(operation.name) + "/" + size.name + "/" + std::string(row.name);
                benchmark::RegisterBenchmark(
                    name.c_str(),
                    [&operation, &row, bytes = size.bytes](benchmark::State& state) {
                        operation.run(state, row, bytes);
                    })
                    ->Iterations(iterations_for(size.bytes))
                    ->Unit(benchmark::kMillisecond);
            }
        }
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    register_all();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

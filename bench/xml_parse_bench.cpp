// Parsing of typical engine event documents (a fresh tree per event, destroyed afterwards, as the
// event router does), and the cost of one tracked allocation against the system heap.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

#include "kt/MemoryManager.h"
#include "kt/xml.h"

#ifdef CONVOKE_HAVE_PUGIXML
#include <pugixml.hpp>
#endif

namespace {

const char* const kEvents[] = {
    "<event name=\"amplitude\"><stream id=\"a1\" muted=\"false\"><amplitude>42</amplitude>"
    "</stream></event>",
    "<event name=\"video_site_changed\"><stream id=\"v1\"><email>4f6d2a0e-8c1b-4d53-9a57-"
    "0f2b8c1e9d44</email><active>true</active><name>Ada Lovelace</name><local>false</local>"
    "<layout>2</layout><width>1280</width><height>720</height><codecName>H264</codecName>"
    "<site>site-7</site></stream></event>",
    "<event name=\"audio_update_conditions\"><conditions><received>1024</received><sent>2048"
    "</sent><data_bytes_dropped>0</data_bytes_dropped><ctrl_bytes_dropped>0</ctrl_bytes_dropped>"
    "<cpu_usage>12</cpu_usage><bars>4</bars><upstream loss=\"0.5\" latency=\"40\"/><downstream "
    "loss=\"1\" latency=\"55\"/></conditions></event>",
};

void SetLabel(benchmark::State& state, const char* text) {
  state.SetLabel(std::to_string(std::strlen(text)) + " bytes");
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * std::strlen(text)));
}

void BM_ParseXMLBuffer(benchmark::State& state) {
  const char* text = kEvents[state.range(0)];
  const std::size_t length = std::strlen(text);
  for (auto _ : state) {
    kt::XMLElement root;
    kt::ParseXMLBuffer(text, length, root);
    benchmark::DoNotOptimize(root.children.data());
  }
  SetLabel(state, text);
}
BENCHMARK(BM_ParseXMLBuffer)->DenseRange(0, 2);

void BM_StreamExtraction(benchmark::State& state) {
  const char* text = kEvents[state.range(0)];
  for (auto _ : state) {
    std::istringstream in{std::string(text)};
    kt::XMLElement root;
    in >> root;
    benchmark::DoNotOptimize(root.children.data());
  }
  SetLabel(state, text);
}
BENCHMARK(BM_StreamExtraction)->DenseRange(0, 2);

#ifdef CONVOKE_HAVE_PUGIXML
void BM_Pugixml(benchmark::State& state) {
  const char* text = kEvents[state.range(0)];
  const std::size_t length = std::strlen(text);
  for (auto _ : state) {
    pugi::xml_document document;
    document.load_buffer(text, length);
    benchmark::DoNotOptimize(document.first_child().internal_object());
  }
  SetLabel(state, text);
}
BENCHMARK(BM_Pugixml)->DenseRange(0, 2);
#endif

// One Allocate/Free pair of about the size of an XML node, against the system heap.
void BM_MemoryManagerAllocateFree(benchmark::State& state) {
  kt::MemoryManager* m = kt::MemoryManager::Instance();
  const auto size = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    void* p = m->Allocate(size, "xml", 1);
    benchmark::DoNotOptimize(p);
    m->Free(p, "xml", 2);
  }
}
BENCHMARK(BM_MemoryManagerAllocateFree)->Arg(64)->Arg(128)->ThreadRange(1, 2);

void BM_MallocFree(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    void* p = std::malloc(size);
    benchmark::DoNotOptimize(p);
    std::free(p);
  }
}
BENCHMARK(BM_MallocFree)->Arg(64)->Arg(128)->ThreadRange(1, 2);

}  // namespace

BENCHMARK_MAIN();

// Cost of the codec on the messages of one status cycle: a DEFAULT_DATA_SET reply received and
// a GET request sent. Each iteration restores the buffer, since the conversions work in place.
#include <benchmark/benchmark.h>

#include <cstring>

#include "msg.h"

namespace {

// A DEFAULT_DATA_SET reply as ptp4l sends it (74 bytes, network order).
const unsigned char kDefaultDsReply[] = {
    0x0d, 0x02, 0x00, 0x4a, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x1b, 0x19, 0xff, 0xfe, 0x00, 0x00, 0x01, 0x00, 0x01,
    0x00, 0x07, 0x04, 0x7f, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x00,
    0x00, 0x02, 0x00, 0x00, 0x01, 0x00, 0x16, 0x20, 0x00, 0x02, 0x00, 0x00, 0x01, 0x80, 0xf8,
    0xfe, 0xff, 0xff, 0x80, 0x00, 0x1b, 0x19, 0xff, 0xfe, 0x00, 0x00, 0x01, 0x00, 0x00};
static_assert(sizeof(kDefaultDsReply) == 74, "reply size");

void BM_PostRecvDefaultDsReply(benchmark::State& state) {
    ptp_message* msg = msg_allocate();
    for (auto _ : state) {
        std::memcpy(msg->data, kDefaultDsReply, sizeof(kDefaultDsReply));
        benchmark::DoNotOptimize(msg_post_recv(msg, sizeof(kDefaultDsReply)));
        benchmark::ClobberMemory();
    }
    msg_put(msg);
}
BENCHMARK(BM_PostRecvDefaultDsReply);

void BM_PreSendDefaultDsGet(benchmark::State& state) {
    // The same message in host order, as the client builds it, with 20 zero data bytes.
    ptp_message* host = msg_allocate();
    std::memcpy(host->data, kDefaultDsReply, sizeof(kDefaultDsReply));
    msg_post_recv(host, sizeof(kDefaultDsReply));
    std::memset(host->data + 54, 0, 20);
    host->data[46] = 0;  // GET
    ptp_message* msg = msg_allocate();
    for (auto _ : state) {
        std::memcpy(msg->data, host->data, sizeof(kDefaultDsReply));
        msg->tlv_count = 1;
        benchmark::DoNotOptimize(msg_pre_send(msg));
        benchmark::ClobberMemory();
    }
    msg_put(msg);
    msg_put(host);
}
BENCHMARK(BM_PreSendDefaultDsGet);

void BM_PoolAllocatePut(benchmark::State& state) {
    for (auto _ : state) {
        ptp_message* msg = msg_allocate();
        benchmark::DoNotOptimize(msg);
        msg_put(msg);
    }
}
BENCHMARK(BM_PoolAllocatePut);

}  // namespace

BENCHMARK_MAIN();

// libFuzzer target for everything that reads a datagram from ptp4l: the codec's receive
// conversion on its own, then the same bytes as the reply to every query and setting.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "FakeLink.h"
#include "Logger.h"
#include "msg.h"
#include "ptp4lMng.h"

namespace {

void codecAlone(const uint8_t* data, size_t size) {
    ptp_message* msg = msg_allocate();
    const size_t n = std::min(size, sizeof(msg->data));
    std::memcpy(msg->data, data, n);
    if (msg_post_recv(msg, static_cast<int>(size)) == 0) {
        // Whatever was accepted can be converted back.
        msg_pre_send(msg);
    }
    msg_put(msg);
}

// set_parameter keeps a mismatching reply on purpose; give it back so that the leak checker
// only reports real leaks.
void releaseKeptReply() {
    unsigned char* buf = FakeLink::lastReceiveBuffer();
    if (buf) {
        msg_put(reinterpret_cast<ptp_message*>(buf - offsetof(ptp_message, data)));
    }
    FakeLink::forgetLastReceive();
}

void everyQuery(ptp4lMng& mng) {
    unsigned char identity[8];
    mng.get_time_status(identity);

    portDS port;
    mng.get_port_data_set(&port, 1);
    unsigned short number;
    long long delay;
    signed char sync, announce, timeout, pdelay;
    unsigned char state;
    mng.get_port_data_set(2, identity, &number, &delay, &sync, &announce, &timeout, &pdelay,
                          &state);

    defaultDS ds;
    mng.get_default_ds(ds);
    unsigned char domain, p1, p2, clockClass, accuracy;
    unsigned short variance;
    mng.get_default_ds(&domain, &p1, &p2, &clockClass, &accuracy, &variance);
    mng.get_parent_ds(&p1, &p2, &clockClass, &accuracy, &variance, identity);

    unsigned short steps;
    float offset, meanDelay;
    mng.get_current_ds(&steps, &offset, &meanDelay);

    unsigned int count;
    unsigned long long path[200];
    mng.get_path_trace(&count, path, 200);

    statsResultsDS stats;
    mng.get_stats_results_ds(stats);

    mng.register_for_notifications();

    FakeLink::forgetLastReceive();
    if (mng.set_priority1(128) < 0) {
        releaseKeptReply();
    }
    FakeLink::forgetLastReceive();
    if (mng.set_sync_interval(1, 0xFD) < 0) {
        releaseKeptReply();
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Log lines are formatted but go nowhere.
    Logger::createLogger(0, "", "msg_recv_fuzz");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static ptp4lMng mng(std::string("/var/run/ptp4l"));
    codecAlone(data, size);
    FakeLink::setReply(data, size);
    everyQuery(mng);
    FakeLink::setReply(nullptr, 0);
    return 0;
}

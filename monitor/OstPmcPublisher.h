#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <zmq.hpp>

#include "OstPmcPtpCfg.h"
#include "PtpNotificationInfo.h"

class PublishJsonServer;

// Publishes the service's notifications to the rest of the device: state-machine actions on
// topic "1000", configuration changes on topic "1001".
class OstPmcPublisher {
  public:
    OstPmcPublisher();
    ~OstPmcPublisher();
    OstPmcPublisher(const OstPmcPublisher&) = delete;
    OstPmcPublisher& operator=(const OstPmcPublisher&) = delete;

    // Binds tcp://127.0.0.1:5574; 0, or the framework's negative code (logged).
    int init(zmq::context_t& context);
    // What the publish server returns: 0, or a negative code. Only after a successful init.
    int notifyFsmStateChange(PtpNotificationInfo& notification);
    int notifyPtpConfigChange(OstPmcPtpCfg& cfg);

  private:
    uint32_t publishPort;
    std::string publishAddress;
    std::unique_ptr<PublishJsonServer> publishServer;
};

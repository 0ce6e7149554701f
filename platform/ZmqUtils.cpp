#include "ZmqUtils.h"

ZmqUtils* ZmqUtils::getInstance() {
    // Lives until exit so that sockets closed by static destructors still find their context.
    static ZmqUtils* instance = new ZmqUtils();
    return instance;
}

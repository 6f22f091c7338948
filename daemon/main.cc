#include "daemon/voLornController.h"
#include "platform/linux/host.h"

int main() {
  volorn::linux_host::runOnThisMachine([] {
    if (const auto controller = volorn::voLornController::init()) controller->handleTrigger();
  });
  return 0;
}

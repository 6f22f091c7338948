#include "libtop/libtop.h"
#include "platform/fake/fake_host.h"
#include "tests/fuzz/fuzz.h"

// The bytes that a sample takes apart itself: a process's arguments, which its user chooses, and a list of
// interfaces.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace volorn;
  const std::string text(textOf(data, size));
  // The first message is of a link and of up to 255 bytes: it would be found too seldom.
  std::string messages = text;
  if (size > interface_message::kTypeOffset) {
    messages[1] = '\0';
    messages[interface_message::kTypeOffset] = interface_message::kInformation64;
  }
  fake::FakeHost host;
  host.kernel.addTask(1, "").arguments = text;
  host.kernel.argument_limit_bytes = static_cast<std::uint32_t>(size);  // no room behind them
  host.kernel.interface_list = fake::FakeKernel::interfaceMessage({1, 2, 3, 4}) + messages;
  const Services services = host.services();
  const ScopedServices installed(services);
  require(libtop_init(nullptr, nullptr) == 0 && libtop_sample(false, false) == 0);
  const std::string& command = libtop_piterate()->psamp.command;
  const bool is_part = command.find('/') == command.npos && text.find('/' + command + '\0') != text.npos;
  require(is_part || command.empty() || command == kLegacyLauncherNameInParentheses);
  const std::uint64_t packets = libtop_tsamp()->net_in_packets.current;
  require(packets == 1 || size >= interface_message::kInformation64Bytes);
  libtop_fini();
  return 0;
}

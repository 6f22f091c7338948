// The screen of `top` on a machine that is scripted, for a test to look at and to type to:
//   top_on_scripted_machine SAMPLES MORE_PROCESSES
// After so many samples one begins that never ends; 0: all of them end.
#include <unistd.h>

#include <cstdlib>
#include <utility>

#include "tests/volornctl/live/scripted_machine.h"
#include "volornctl/live/screen_loop.h"

namespace {

using namespace volorn::ctl;

class EndlessSampler : public Sampler {
 public:
  EndlessSampler(int samples, std::size_t more) : samples_(samples), machine_(more) {}

  Sample take() override {
    if (samples_ > 0 && taken_++ == samples_) {
      while (true) pause();
    }
    return machine_.take();
  }

 private:
  int samples_;
  int taken_ = 0;
  ScriptedSampler machine_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const int samples = std::atoi(argv[1]);
  const auto more = static_cast<std::size_t>(std::atoi(argv[2]));
  Output output(STDOUT_FILENO);
  std::unique_ptr<CursesTerminal> terminal = CursesTerminal::open(STDIN_FILENO, output, true);
  if (!terminal) return 1;
  SamplingThread source([=] { return std::make_unique<EndlessSampler>(samples, more); }, 0.01, std::nullopt);
  LookupThread lookups(std::make_unique<ScriptedLookups>());
  runScreen(std::move(terminal), output, source, &lookups, {}, 1);
  _exit(0);
}

// Traces so many steps with each of so many threads into a file, and then waits to be killed.
//   HalvexKitTracedProgram FILE THREADS STEPS
#include "ResourceDownloadManager/ResourceDescriptor.h"
#include "ResourceKit/EventTracerChrome.h"

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

using namespace Halvex;
using Event = App::IEventTracer::Event;

int main(int, char** arguments) {
    const Kit::EventTracerChrome tracer(arguments[1]);
    const int steps = std::atoi(arguments[3]);
    App::ResourceDescriptor descriptor;
    descriptor.idPrefix = "fonts";
    descriptor.idSuffix = "serif";
    std::vector<std::thread> threads;
    for (int i = std::atoi(arguments[2]); i > 0; --i) {
        threads.emplace_back([&] {
            for (int step = 0; step < steps; ++step) {
                tracer.Trace(Event::Check, {&descriptor, nullptr, nullptr, std::to_string(step)});
                tracer.Trace(Event::CheckEnd, {&descriptor, nullptr, nullptr, {}});
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    while (true)
        ::pause();
}

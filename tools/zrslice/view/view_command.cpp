#include "view_command.h"

#include <pthread.h>

#include <csignal>
#include <cstdio>
#include <thread>

#include "viewer_server.h"

namespace zrview {

int RunViewer(const ViewOptions& options, zrio::PluginSession& plugin) {
    // SIGINT and SIGTERM are taken by one thread that stops the server, so
    // that the render thread finishes its frame and the plug-in is released
    // as a host releases it. Blocked here, before any thread starts, so that
    // every thread inherits the mask.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    if (!options.quiet) std::fprintf(stderr, "zrslice: loading %s\n", options.sources.volume.c_str());
    ViewScene scene(options.sources, plugin);
    ViewerServer server(scene, options.saveFolder);
    const int port = server.Bind(options.host, options.port);
    // The address on standard output, alone on its line, for people and scripts.
    std::printf("http://%s:%d/\n", options.host.c_str(), port);
    std::fflush(stdout);
    if (!options.quiet)
        std::fprintf(stderr, "zrslice: viewer of %s ready; open the address above (Ctrl-C stops it)\n",
                     scene.Description()["source"].get<std::string>().c_str());

    std::thread stopper([&] {
        int signal = 0;
        sigwait(&stopSignals, &signal);
        server.Stop();
    });
    server.Serve();
    stopper.join();
    if (!options.quiet) std::fprintf(stderr, "zrslice: viewer stopped\n");
    return 0;
}

}  // namespace zrview

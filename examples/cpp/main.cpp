// A complete host in C++: signs a user in, sends events of two kinds and waits for their delivery.
//
//     example_cpp http://127.0.0.1:8080
#include <chrono>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <velmora/velmora.hpp>

namespace {

namespace host = velmora::host;

constexpr const char* kConfigGuid = "b1f0a3f0-6f5e-4c43-8a7a-2f3a52c1f0d2";

host::HttpStack::Options stackOptions(const std::string& endpoint) {
    host::HttpStack::Options options;
    options.proxy = "";
    options.routes = {{"https://ingest.velmora.orvane.example", endpoint},
                      {"https://identity.velmora.orvane.example", endpoint},
                      {"https://permission.velmora.orvane.example", endpoint}};
    return options;
}

// Sending begins a moment after the start, once the library knows the state of the network: a flush is refused before.
void flush(host::Ingest& ingest) {
    for (int tries = 0; tries < 40; ++tries) {
        std::error_code error;
        ingest.flush(&error);
        if (!error) return;
        if (error.value() != VELMORA_ERROR_PRECONDITION_FAILED) throw std::system_error(error);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    throw std::runtime_error("sending stays off");
}

void run(const std::string& endpoint) {
    const host::HttpStack stack(stackOptions(endpoint));
    host::setIngestConfig(kConfigGuid, {"example-cpp", "example-key"});
    host::setAccessToken("token-of-the-user");
    host::online();

    host::Ingest ingest(kConfigGuid, R"({"source.name":"example"})",
                        [](std::error_code error) { std::cerr << "service: " << error.message() << '\n'; });
    ingest.addCommonAttribute("source.version", "1.0");
    for (int number = 1; number <= 50; ++number) {
        const std::string value = std::to_string(number);
        ingest.submit(R"({"event.workflow":"Export","event.type":"success","event.value":")" + value + R"("})");
    }
    host::Submission atOnce;
    atOnce.batch = false;
    ingest.submit(R"({"event.workflow":"Export","event.type":"finish"})", atOnce);
    flush(ingest);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: " << argv[0] << " URL\n";
        return 2;
    }
    try {
        run(argv[1]);
        std::cout << "delivered\n";
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "not delivered: " << error.what() << '\n';
        return 1;
    }
}

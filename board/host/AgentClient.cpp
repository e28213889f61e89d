#include "AgentClient.h"

#include <algorithm>

namespace board {

AgentClient::AgentClient(Poller& poller, int serial) : poller_(poller), serial_(serial) {
    poller_.add(serial_,
                [this](const std::uint8_t* data, std::size_t size) {
                    stream_.feed(reinterpret_cast<const char*>(data), size);
                    Frame frame;
                    while (stream_.next(frame)) handle(frame);
                },
                {});
}

void AgentClient::run(const RunRequest& request, OnOutput onOutput, OnExit onExit) {
    onOutput_ = std::move(onOutput);
    onExit_ = std::move(onExit);
    input_.clear();
    underWay_ = 0;
    inputEnds_ = false;
    poller_.send(serial_, encodeFrame(FrameType::Run, request.encode()));
}

void AgentClient::input(const std::string& bytes) {
    input_ += bytes;
    pumpInput();
}

void AgentClient::endInput() {
    inputEnds_ = true;
    pumpInput();
}

void AgentClient::pumpInput() {
    while (!input_.empty() && underWay_ < inputWindow) {
        const std::size_t size = std::min(input_.size(), inputWindow - underWay_);
        poller_.send(serial_, encodeFrame(FrameType::Input, input_.substr(0, size)));
        input_.erase(0, size);
        underWay_ += size;
    }
    if (inputEnds_ && input_.empty()) {
        inputEnds_ = false;
        poller_.send(serial_, encodeFrame(FrameType::Input, {}));
    }
}

void AgentClient::resize(unsigned rows, unsigned columns) {
    poller_.send(serial_, encodeFrame(FrameType::Resize, encodeNumbers({rows, columns})));
}

void AgentClient::signal(int number) {
    poller_.send(serial_,
                 encodeFrame(FrameType::Signal, encodeNumbers({static_cast<unsigned>(number)})));
}

void AgentClient::handle(const Frame& frame) {
    switch (frame.type) {
        case FrameType::Ready:
            ready_ = true;
            break;
        case FrameType::Output:
        case FrameType::Error:
            if (onOutput_) onOutput_(frame.type, frame.payload);
            break;
        case FrameType::Consumed:
            underWay_ -= std::min<std::size_t>(underWay_, decodeNumber(frame.payload, 0));
            pumpInput();
            break;
        case FrameType::Exit: {
            const OnExit onExit = std::move(onExit_);
            onExit_ = nullptr;
            onOutput_ = nullptr;
            if (onExit)
                onExit(frame.payload.empty() ? 1 : static_cast<unsigned char>(frame.payload[0]));
            break;
        }
        default:
            break;
    }
}

}  // namespace board

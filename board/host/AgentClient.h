#pragma once

#include "Frames.h"
#include "Poller.h"

#include <functional>
#include <string>
#include <vector>

namespace board {

/// Runs commands through the agent of one machine.
class AgentClient {
public:
    using OnOutput = std::function<void(FrameType stream, const std::string& bytes)>;
    using OnExit = std::function<void(int status)>;

    AgentClient(Poller& poller, int serial);

    bool ready() const { return ready_; }

    /// Starts a command; one at a time.
    void run(const RunRequest& request, OnOutput onOutput, OnExit onExit);

    /// Sends input to the command, and keeps it here until the agent has room for it.
    void input(const std::string& bytes);
    void endInput();
    void resize(unsigned rows, unsigned columns);
    void signal(int number);

private:
    void handle(const Frame& frame);
    void pumpInput();

    Poller& poller_;
    int serial_;
    FrameStream stream_;
    bool ready_ = false;
    std::string input_;
    std::size_t underWay_ = 0;
    bool inputEnds_ = false;
    OnOutput onOutput_;
    OnExit onExit_;
};

}  // namespace board

#include "support/gate.h"

namespace support {

Gate::Gate() : state_(std::make_shared<State>()) {}

void Gate::open()
{
    state_->event.set();
}

void Gate::close()
{
    state_->event.clear();
}

bool Gate::isOpen() const
{
    return state_->event.isSet();
}

int Gate::arrivals() const
{
    const std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->arrivals;
}

bool Gate::waitForArrivals(int count, std::chrono::milliseconds deadline) const
{
    std::unique_lock<std::mutex> lock(state_->mutex);
    return state_->changed.wait_for(lock, deadline, [&] { return state_->arrivals >= count; });
}

int Gate::fd() const
{
    return state_->event.fd();
}

void Gate::arrive() const
{
    const std::lock_guard<std::mutex> lock(state_->mutex);
    ++state_->arrivals;
    state_->changed.notify_all();
}

} // namespace support

// A process-wide instance, made on first use and destroyed at exit.
#pragma once

namespace halden::sensor {

template <typename T>
class Singleton {
public:
    Singleton(const Singleton&) = delete;
    Singleton& operator=(const Singleton&) = delete;

protected:
    Singleton() = default;
    ~Singleton() = default;

    static T& instance() {
        static T theInstance;
        return theInstance;
    }
};

}  // namespace halden::sensor

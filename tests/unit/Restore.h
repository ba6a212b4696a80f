// Puts a global of the agent back at the end of a test.
#pragma once

template <class T>
class Restore {
public:
    explicit Restore(T &global) : global_(global), earlier_(global) {}
    Restore(T &global, T value) : Restore(global) { global = value; }
    ~Restore() { global_ = earlier_; }
    Restore(const Restore &) = delete;
    Restore &operator=(const Restore &) = delete;

private:
    T &global_;
    const T earlier_;
};

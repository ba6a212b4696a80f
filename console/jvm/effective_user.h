// Acting as the user of a JVM for a while.
#pragma once

#include "base/process.h"

#include <cstdlib>
#include <vector>

namespace qorctl {

// The effective user, group and groups of the target for the time of a scope. Only root gets others. Throws a
// Failure when the identity isn't given.
class EffectiveUser {
public:
    // Keeps a reference to the process.
    explicit EffectiveUser(const Process &process);
    EffectiveUser(const EffectiveUser &) = delete;
    ~EffectiveUser() {
        if (changed_)
            Restore();
    }

    // What only root can do, done as root; false when we came as somebody else.
    template <class Act>
    bool AsRoot(Act act) const {
        if (uid_ != 0)
            return false;
        if (changed_)
            Restore();
        act();
        if (changed_ && !Take())
            abort(); // going on as root would be worse
        return true;
    }

private:
    bool Take() const;
    void Restore() const;
    const Process &process_;
    uid_t uid_;
    gid_t gid_;
    std::vector<gid_t> groups_;
    bool changed_ = false;
};

} // namespace qorctl

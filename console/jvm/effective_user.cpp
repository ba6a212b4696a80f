#include "effective_user.h"

#include "base/failure.h"

#include <algorithm>
#include <fmt/format.h>
#include <grp.h>
#include <unistd.h>

namespace qorctl {

EffectiveUser::EffectiveUser(const Process &process) : process_(process), uid_(geteuid()), gid_(getegid()) {
    if (uid_ != 0 && process.euid == uid_)
        return;
    groups_.resize(static_cast<size_t>(std::max(getgroups(0, nullptr), 0)));
    // Where groups can't be chosen, as in a container without capabilities, they couldn't be restored either.
    changed_ = getgroups(static_cast<int>(groups_.size()), groups_.data()) >= 0 && setgroups(0, nullptr) == 0;
    if (changed_ && Take())
        return;
    if (changed_)
        Restore();
    changed_ = false;
    if (process.euid == uid_)
        return; // root without the privilege: the same user at least
    throw Failure(fmt::format("can't take the identity of {}", UserName(process.euid)),
                  "run qorctl as that user");
}

bool EffectiveUser::Take() const {
    return setgroups(0, nullptr) == 0 && setegid(process_.egid) == 0 && seteuid(process_.euid) == 0;
}

void EffectiveUser::Restore() const {
    // The user first: only root may choose the groups.
    if (seteuid(uid_) != 0 || setegid(gid_) != 0 || setgroups(groups_.size(), groups_.data()) != 0)
        abort(); // going on under a mixed identity would be worse
}

} // namespace qorctl

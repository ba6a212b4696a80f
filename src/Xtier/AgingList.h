// The order in which the entries of a cache were added. Entries hold their own links, `prev` towards the
// older one and `next` towards the newer one.
#pragma once

template <typename Entry>
struct QorAgingList {
    Entry *oldest, *newest;
};

template <typename Entry>
void QorLinkAsNewest(QorAgingList<Entry> *list, Entry *entry) {
    entry->prev = list->newest;
    entry->next = nullptr;
    if (list->newest)
        list->newest->next = entry;
    else
        list->oldest = entry;
    list->newest = entry;
}

// Takes the oldest entry out of a list of two or more.
template <typename Entry>
Entry *QorTakeOldest(QorAgingList<Entry> *list) {
    Entry *const oldest = list->oldest;
    list->oldest = oldest->next;
    list->oldest->prev = nullptr;
    return oldest;
}

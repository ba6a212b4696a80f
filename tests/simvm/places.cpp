// Which members lie elsewhere in which build, and the list of places by the agent's indices.
#include "simvm.h"

#include <algorithm>
#include <random>

namespace simvm {

namespace {

// A member of which the agent has the place in its table.
struct Listed {
    int32_t index; // in that table
    int16_t *shifts;
    size_t place;              // in layout.h
    int32_t bytes, unit, base; // unit of the entry: 1 byte, 8 words; what it is counted from

    template <class S, class T>
    Listed(int32_t at, T S::*member, int32_t in = 1, int32_t from = 0)
        : index(at), shifts(placeShift<S>), place(PlaceInLayout(member)), bytes(sizeof(T)), unit(in),
          base(from) {}
};
using Row = Listed;
constexpr int32_t PART = offsetof(Klass, vtable);

template <class... ROWS>
std::vector<Listed> List(const ROWS &...rows) {
    return {rows...};
}

const std::vector<Listed> &AllListed() {
    static const std::vector<Listed> all = List(
        Row(2, &JavaThread::osThread), Row(4, &JavaThread::threadObj), Row(5, &JavaThread::anchorSp),
        Row(6, &JavaThread::anchorFp), Row(23, &JavaThread::anchorPc), Row(8, &JavaThread::next),
        Row(12, &JavaThread::state), Row(28, &JavaThread::safepointState), Row(74, &JavaThread::jniEnv, 8),
        Row(11, &OSThread::kernelId), Row(7, &CallWrapper::anchorSp), Row(22, &CallWrapper::anchorFp),
        Row(14, &Method::accessFlags), Row(17, &ConstMethod::nameIndex), Row(24, &ConstMethod::codeSize),
        Row(13, &KlassVtable::isInstance), Row(59, &KlassVtable::isObjArray),
        Row(58, &Klass::oopMapCache, 1, 16), Row(9, &Klass::fields, 1, PART),
        Row(10, &Klass::constants, 1, PART), Row(18, &Klass::name, 1, PART),
        Row(31, &Klass::sourceFile, 1, PART), Row(15, &CodeHeap::mapLow), Row(19, &CodeHeap::log2SegmentSize),
        Row(26, &Blob::pcDescCache), Row(27, &Blob::scopesOffset), Row(33, &Blob::linkOffset),
        Row(57, &Blob::oopMaps), Row(35, &BlobVtable::isNmethod), Row(36, &BlobVtable::isI2C),
        Row(37, &BlobVtable::isC2I), Row(38, &BlobVtable::isRuntimeStub), Row(29, &CodeCopy::size),
        Row(30, &CodeCopy::realStart), Row(44, &Space::bottom), Row(45, &Space::end), Row(46, &Space::top),
        Row(47, &CollectedHeap::young), Row(48, &CollectedHeap::old), Row(49, &CollectedHeap::perm),
        Row(51, &YoungGeneration::eden), Row(52, &YoungGeneration::from), Row(53, &YoungGeneration::to),
        Row(67, &KlassVtable::isSymbol, 8), Row(68, &KlassVtable::isKlass, 8),
        Row(69, &KlassVtable::isMethod, 8), Row(70, &KlassVtable::isConstantPool, 8),
        Row(71, &KlassVtable::isConstantPoolCache, 8), Row(73, &KlassVtable::isCompiledICHolder, 8),
        Row(171, &KlassVtable::isConstMethod, 8), Row(190, &KlassVtable::isTypeArrayKlass, 8),
        Row(191, &KlassVtable::isArrayKlass, 8), Row(192, &KlassVtable::isObjArrayKlass, 8),
        Row(193, &KlassVtable::isMethodData, 8), Row(194, &KlassVtable::isInstanceKlass, 8),
        Row(76, &KlassVtable::oopSize, 8));
    return all;
}

// What follows a word that this build lacks lies a word lower.
template <class S>
void Lacks(Word S::*member) {
    for (size_t place = Place(member); place < std::size(placeShift<S>); place++)
        placeShift<S>[place] -= 8;
}

} // namespace

void ArrangePlaces() {
    int build = atoi(vm.options.version.substr(vm.options.version.find('_') + 1).c_str());
    if (build < 8) {
        Lacks(&Klass::since08);
        Lacks(&YoungGeneration::since08);
    }
    if (build < 10)
        Lacks(&KlassVtable::since10);
    for (int16_t &shift : placeShift<JavaThread>)
        shift += vm.options.moved;
    if (!vm.options.shuffle)
        return;
    std::mt19937 random(vm.options.shuffle);
    std::map<std::pair<int16_t *, int32_t>, std::vector<size_t>> alike; // places by structure and size
    for (const Listed &row : AllListed())
        alike[{row.shifts, row.bytes}].push_back(row.place);
    for (auto &[kind, places] : alike) {
        std::vector<size_t> others = places;
        std::shuffle(others.begin(), others.end(), random);
        for (size_t i = 0; i < places.size(); i++)
            kind.first[places[i]] += int(others[i]) - int(places[i]);
    }
}

void TellPlaces(uint32_t out[200]) {
    for (const Listed &row : AllListed())
        out[row.index] = (row.place + row.shifts[row.place] - row.base) / row.unit;
}

} // namespace simvm

// What scenes are made of.
#pragma once

#include "objects.h"
#include "scenes.h"

namespace simvm {

using F = FrameKind;

// A frame in a method of five lines: 10 at its start, a far one, one that no file has, and last, as some
// compilers order them, one at bci 8 that stands for the call. Without a receiver the method is static.
Scope In(const std::string &holder, const std::string &name, int line, Object *receiver = nullptr,
         std::vector<Object *> monitors = {}, const std::string &signature = "()V",
         std::vector<Variable> variables = {});
Scope Native(const std::string &holder, const std::string &name, Object *receiver = nullptr,
             const std::string &signature = "()V", std::vector<Variable> variables = {});
Frame Run(const std::string &holder);
// A thread of the scene, at its rest; what is to be shown of it beside its frames.
void Add(Scene *scene, const std::string &name, std::vector<Frame> frames, Rest rest,
         const std::string &state = "", std::map<std::string, std::string> facts = {});

// A connected socket of the loopback, or a descriptor that isn't one any more, or never was.
enum class SocketKind { IPV4, IPV6, CLOSED, FILE };
struct Connected {
    int descriptor;
    std::string localPort, remotePort, peer; // empty: none
};
Connected Connect(Scene *scene, SocketKind kind);
int32_t ListenOn(Scene *scene); // a port of the loopback
// Structures of the native driver from its state to the one with the descriptor. The scene "drivers" names
// statements "hole 0" and on, whose chain ends in that structure.
constexpr int NATIVE_STEPS = 11;

void StageReaders(Scene *scene);
void StageDrivers(Scene *scene);
void StageTiers(Scene *scene);
void StageServers(const std::string &name, Scene *scene);
// The thread by which Tomcat's port is found.
void AddProcessor(Scene *scene);

} // namespace simvm

// What scenes are made of.
#pragma once

#include "objects.h"
#include "scenes.h"

namespace simvm {

using F = FrameKind;

// A frame in a method of four lines: 10 at its start, a far one, and last, as some compilers order them, one
// at bci 8 that stands for the call. Without a receiver the method is static.
Scope In(const std::string &holder, const std::string &name, int line, Object *receiver = nullptr,
         std::vector<Object *> monitors = {}, const std::string &signature = "()V",
         std::vector<Variable> variables = {});
Scope Native(const std::string &holder, const std::string &name, Object *receiver = nullptr,
             const std::string &signature = "()V", std::vector<Variable> variables = {});
Frame Run(const std::string &holder);
// A thread of the scene, at its rest.
void Add(Scene *scene, const std::string &name, std::vector<Frame> frames, Rest rest);

void StageReaders(Scene *scene);

} // namespace simvm

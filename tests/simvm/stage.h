// What scenes are made of: a text with a line for each class, object and thread, and real sockets.
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
// A thread of the scene, at its rest.
void Add(Scene *scene, const std::string &name, Script script);

// A line that begins with a blank goes on with the one before; # begins a comment.
std::vector<std::string> WholeLines(const std::string &text);

// Reads the text of a scene. A line that begins with a blank goes on with the one before; # begins a comment.
//   class NAME ...             as DefineClass has it
//   let NAME TEXT              $NAME is that text from then on
//   NAME = VALUE               an object by its name; with := it is one of the scene's named ones
//   static CLASS.FIELD = VALUE, set NAME.FIELD = VALUE
//   thread NAME: REST ["STATE"] FRAME; ... [| FACT=TEXT; ...]    outermost frame first
// VALUE: null, true, a number, a name, "text", TYPE[<SUPER]{FIELD[,SIGNATURE]=VALUE ...}, SIGNATURE(VALUE
// ...),
//   or a table: TYPE#BUCKETS(KEY@BUCKET VALUE ...). A class that isn't there yet is defined with these
//   fields, their types as their values have them where no signature is given.
// FRAME: KIND SCOPE > SCOPE ..., outermost first. i: interpreted, c: compiled, o: compiled in mid-loop, n:
//   native, s: a stub; copy: compiled, in the thread's copy of its code; linked: compiled, and calls code
//   that isn't the VM's; run CLASS: its run method.
// SCOPE: CLASS.METHOD[(SIGNATURE)][:LINE] [@VALUE] [^VALUE ...] [%[SIGNATURE=]VALUE ...]: receiver (a bare @
// or
//   @{...}: of that class), monitors, variables. Without a line it is native.
class SceneText {
public:
    explicit SceneText(Scene *scene) : scene_(scene) {}
    void Read(const std::string &text);
    Value Make(const std::string &text);                 // of one value
    std::string Expanded(const std::string &line) const; // with the texts of its names
    void Let(const std::string &name, const std::string &text) { texts_[name] = text; }
    void Name(const std::string &name, Value value) { values_[name] = value; }
    std::vector<Frame> Frames(const std::string &text);

private:
    void ReadLine(const std::string &line);
    void ReadThread();
    char Next(); // after blanks; 0 at the end
    bool Take(const std::string &text);
    std::string Until(const char *ends);
    Value ReadValue();
    Value ReadObject(const std::string &type);
    std::vector<Value> ReadElements();
    std::vector<TableEntry> ReadEntries();
    Frame ReadFrame();
    Scope ReadScope();

    Scene *scene_;
    std::map<std::string, std::string> texts_;
    std::map<std::string, Value> values_;
    std::string line_;
    size_t at_ = 0;
};

// A connected socket of the loopback, or a descriptor that isn't one any more, or never was.
enum class SocketKind { IPV4, IPV6, CLOSED, FILE };
struct Connected {
    int descriptor;
    std::string localPort, remotePort, peer; // empty: none
};
Connected Connect(Scene *scene, SocketKind kind);
int32_t ListenOn(Scene *scene); // a port of the loopback

void StageShop(Scene *scene);
void StageReaders(Scene *scene);
void StageDrivers(Scene *scene);
void StageTiers(Scene *scene);
void StageServers(const std::string &name, Scene *scene);
void AddProcessor(Scene *scene); // the thread by which Tomcat's port is found

} // namespace simvm

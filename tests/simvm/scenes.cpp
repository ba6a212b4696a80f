#include "scenes.h"

namespace simvm {

const char SHOP[] = R"(
class shop/Till *last,Lshop/Till;
ledger = shop/Ledger
till = shop/Till
static shop/Till.last = till
orders = shop/Orders
queue = java/util/LinkedList
cart = shop/Cart
clock = shop/Clock
drawer = shop/Drawer
page = shop/Page
let WORKS i shop/Worker.run:21 @
thread door: PIPE "Object Wait" i shop/Door.run:21 @ ; c java/net/ServerSocket.accept:450 > java/net/PlainSocketImpl.accept:384 ;
  n java/net/PlainSocketImpl.socketAccept @
thread import: PIPE $WORKS ; i shop/Import.load:88 @orders ; c shop/Import.inflate @ ;
  n java/io/FileInputStream.readBytes
thread night|watch: SLEEP $WORKS ; i shop/Watch.pause:26 @clock ^clock
thread packer: WAIT $WORKS ; c shop/Packer.next:33 @queue ^queue > java/lang/Object.wait:474 @queue ;
  n java/lang/Object.wait @queue
thread till-1: SLEEP $WORKS ; c shop/Cashier.sell:101 @cart > shop/Till.open:17 @till ^till >
  shop/Ledger.book:64 @ledger ^ledger ^till ; i shop/Ledger.sync:71 @ledger ^ledger ; n java/lang/Thread.sleep
thread till-2: MONITOR $WORKS ; i shop/Till.open:17 @till ^drawer ^till
thread till-3: MONITOR $WORKS ; i shop/Cashier.close:140 @cart ^cart ; c shop/Ledger.book:64 @ledger ^page ^ledger
thread pricing: SPIN $WORKS ; i shop/Prices.update:52 ; o shop/Prices.all:60 @orders > shop/Prices.each:64 ;
  i shop/Tax.of:5 @cart ^cart ; c shop/Tax.rate:9 @cart > shop/Tax.round:15
thread search: CALLS $WORKS ; c shop/Search.scan:31 @orders ; c shop/Search.match:40
thread hash: SPIN $WORKS ; c shop/Hash.mix:12
thread reports: PIPE "Network Wait" $WORKS ; i shop/Reports.print:19 @orders ^orders ;
  n java/security/AccessController.doPrivileged ; c shop/Reports$1.run:23 @ ;
  n java/net/SocketInputStream.socketRead0
)";

Script NativeScript() {
    Script script = {FramesOf("i shop/Main.main:7 ; c qoragent/Agent.start:70 ; n qoragent/Agent.initvar"),
                     Rest::CALL};
    EmitScript(&script);
    return script;
}

void StageScene(const std::string &name, Scene *scene) {
    const Texts texts = {{"shop", SHOP},   {"heap", SHOP},       {"readers", READERS}, {"drivers", DRIVERS},
                         {"tiers", TIERS}, {"servers", SERVERS}, {"nothing", ""}};
    ReadScene(scene, texts.at(name));
    if (name != "heap")
        return;
    StageRoots(scene->runners.front()->info, ChainEnd::NONE);
    FillHeap(TRICKY_HEAP, 1);
    SetCollections({12, 3, 4'000'000, 9'000'000});
}

void EndScene(Scene *scene) {
    for (Runner *runner : scene->runners)
        Leave(runner);
    scene->runners.clear();
    for (int descriptor : scene->descriptors)
        close(descriptor);
}

} // namespace simvm

package tessar.qrfinternal.controller.engine;

import qoragent.models.Keep;
import tessar.qrfinternal.controller.state.ChildViewPortContextImpl;

public class ControlFlowEngine {
    public void performControlFlow(ChildViewPortContextImpl context, Runnable page) {
        page.run();
        Keep.alive(this, context);
    }
}

package tessar.qrfinternal.controller.state;

public class ChildViewPortContextImpl {
    private final ViewPortContextImpl mParent;

    public ChildViewPortContextImpl(ViewPortContextImpl parent) { mParent = parent; }

    public ViewPortContextImpl parent() { return mParent; }
}

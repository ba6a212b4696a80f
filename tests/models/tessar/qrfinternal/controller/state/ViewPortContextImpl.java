package tessar.qrfinternal.controller.state;

public class ViewPortContextImpl {
    protected String mCachedPhysicalUri;

    public ViewPortContextImpl(String uri) { mCachedPhysicalUri = uri; }
}

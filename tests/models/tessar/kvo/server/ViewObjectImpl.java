package tessar.kvo.server;

import qoragent.models.Keep;

public class ViewObjectImpl {
    protected ViewDefImpl mViewDef;

    public ViewObjectImpl(String name) { mViewDef = new ViewDefImpl(name); }

    public void getQueryHitCount(Runnable query) {
        query.run();
        Keep.alive(this, query);
    }
}

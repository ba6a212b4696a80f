package tessar.kvo.server;

import qoragent.models.Keep;

public class ViewRowImpl {
    public void setAttribute(ViewAttributeDefImpl attribute, Runnable setter) {
        setter.run();
        Keep.alive(this, attribute, setter);
    }
}

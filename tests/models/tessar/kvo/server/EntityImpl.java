package tessar.kvo.server;

import qoragent.models.Keep;

public class EntityImpl {
    protected EntityDefImpl mEbi;
    private final Runnable statement;

    public EntityImpl(String name, Runnable statement) {
        mEbi = new EntityDefImpl(name);
        this.statement = statement;
    }

    public void doDML(int operation, TransactionEvent event) {
        statement.run();
        Keep.alive(this, event);
    }
}

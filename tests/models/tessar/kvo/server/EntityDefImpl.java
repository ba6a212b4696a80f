package tessar.kvo.server;

public class EntityDefImpl extends RowDef {
    public EntityDefImpl(String name) { super(name); }
}

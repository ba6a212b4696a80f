package tessar.kvo.server;

public class ViewDefImpl extends RowDef {
    public ViewDefImpl(String name) { super(name); }
}

package tessar.kvo.server;

public class ViewAttributeDefImpl {
    protected RowDef mDef;

    public ViewAttributeDefImpl(String name) { mDef = new RowDef(name); }
}

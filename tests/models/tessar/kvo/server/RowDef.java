package tessar.kvo.server;

public class RowDef {
    protected String mObjName;

    public RowDef(String name) { mObjName = name; }
}

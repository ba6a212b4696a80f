package tessar.kvo;

import qoragent.models.Keep;

public class ExprEval {
    protected String mExprStr;

    public ExprEval(String script) { mExprStr = script; }

    public void evaluate(Runnable script) {
        script.run();
        Keep.alive(this, script);
    }
}

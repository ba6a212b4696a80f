package com.sun.el;

import qoragent.models.Keep;

public class MethodExpressionImpl {
    private final String expr;

    public MethodExpressionImpl(String expression) { expr = expression; }

    public void invoke(Runnable bean) {
        bean.run();
        Keep.alive(this, bean, expr);
    }
}

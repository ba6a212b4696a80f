package com.sun.el;

import qoragent.models.Keep;

public class ValueExpressionImpl {
    private final String expr;

    public ValueExpressionImpl(String expression) { expr = expression; }

    public void getValue(Runnable bean) {
        bean.run();
        Keep.alive(this, bean, expr);
    }
}

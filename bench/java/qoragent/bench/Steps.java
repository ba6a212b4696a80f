package qoragent.bench;

/** A way down through 24 methods of two classes, as long as asked for; ends in Crowd.bottom. */
final class Steps {
    private final Crowd crowd;
    private final int number;
    private final Strides strides = new Strides();

    Steps(Crowd crowd, int number) {
        this.crowd = crowd;
        this.number = number;
    }

    private final class Strides {
        void a(int left) {
            if (left == 0)
                crowd.bottom(number);
            else
                Steps.this.b(left - 1);
        }

        void b(int left) {
            if (left == 0)
                crowd.bottom(number);
            else
                Steps.this.c(left - 1);
        }

        void c(int left) {
            if (left == 0)
                crowd.bottom(number);
            else
                Steps.this.d(left - 1);
        }

        void d(int left) {
            if (left == 0)
                crowd.bottom(number);
            else
                Steps.this.e(left - 1);
        }

        void e(int left) {
            if (left == 0)
                crowd.bottom(number);
            else
                Steps.this.f(left - 1);
        }

        void f(int left) {
            if (left == 0)
                crowd.bottom(number);
            else
                Steps.this.g(left - 1);
        }

        void g(int left) {
            if (left == 0)
                crowd.bottom(number);
            else
                Steps.this.h(left - 1);
        }

        void h(int left) {
            if (left == 0)
                crowd.bottom(number);
            else
                Steps.this.i(left - 1);
        }

        void i(int left) {
            if (left == 0)
                crowd.bottom(number);
            else
                Steps.this.j(left - 1);
        }

        void j(int left) {
            if (left == 0)
                crowd.bottom(number);
            else
                Steps.this.k(left - 1);
        }

        void k(int left) {
            if (left == 0)
                crowd.bottom(number);
            else
                Steps.this.l(left - 1);
        }

        void l(int left) {
            if (left == 0)
                crowd.bottom(number);
            else
                Steps.this.a(left - 1);
        }
    }

    void a(int left) {
        if (left == 0)
            crowd.bottom(number);
        else
            strides.a(left - 1);
    }

    void b(int left) {
        if (left == 0)
            crowd.bottom(number);
        else
            strides.b(left - 1);
    }

    void c(int left) {
        if (left == 0)
            crowd.bottom(number);
        else
            strides.c(left - 1);
    }

    void d(int left) {
        if (left == 0)
            crowd.bottom(number);
        else
            strides.d(left - 1);
    }

    void e(int left) {
        if (left == 0)
            crowd.bottom(number);
        else
            strides.e(left - 1);
    }

    void f(int left) {
        if (left == 0)
            crowd.bottom(number);
        else
            strides.f(left - 1);
    }

    void g(int left) {
        if (left == 0)
            crowd.bottom(number);
        else
            strides.g(left - 1);
    }

    void h(int left) {
        if (left == 0)
            crowd.bottom(number);
        else
            strides.h(left - 1);
    }

    void i(int left) {
        if (left == 0)
            crowd.bottom(number);
        else
            strides.i(left - 1);
    }

    void j(int left) {
        if (left == 0)
            crowd.bottom(number);
        else
            strides.j(left - 1);
    }

    void k(int left) {
        if (left == 0)
            crowd.bottom(number);
        else
            strides.k(left - 1);
    }

    void l(int left) {
        if (left == 0)
            crowd.bottom(number);
        else
            strides.l(left - 1);
    }
}

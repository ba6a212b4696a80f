package qoragent.demo;

import java.net.Socket;
import java.util.concurrent.locks.ReentrantLock;

/**
 * Locks in trouble: a settlement asks its bank while it holds the ledger, an account and the invoice lock; a
 * refund holds its book and wants the account; an invoice wants the invoice lock.
 */
final class Payments {
    /** The monitors have classes of their own, so that a sample tells them apart by name. */
    static final class Ledger {}

    static final class Account {}

    static final class RefundBook {}

    private static final Ledger LEDGER = new Ledger();
    private static final Account ACCOUNT = new Account();
    private static final RefundBook REFUND_BOOK = new RefundBook();
    private static final ReentrantLock INVOICE_NUMBERS = new ReentrantLock();

    private Payments() {}

    /** Holds the ledger in one frame and the account in the next, and waits for the bank in a third. */
    static final class Settlement extends Actor {
        private final Socket bank;

        Settlement(Socket bank) {
            super("demo-lock-holder", Thread.State.RUNNABLE, Feeds.SOCKET_READ);
            this.bank = bank;
        }

        @Override
        void act() throws Exception {
            INVOICE_NUMBERS.lock();
            settle();
        }

        private void settle() throws Exception {
            synchronized (LEDGER) {
                charge();
            }
        }

        private void charge() throws Exception {
            synchronized (ACCOUNT) {
                askBank();
            }
        }

        private void askBank() throws Exception { bank.getInputStream().read(); }
    }

    static final class Refund extends Actor {
        Refund() { super("demo-lock-wanter", Thread.State.BLOCKED, "credit"); }

        @Override
        void act() {
            refund();
        }

        private void refund() {
            synchronized (REFUND_BOOK) {
                credit();
            }
        }

        private void credit() {
            synchronized (ACCOUNT) {
                throw new IllegalStateException("the account was free");
            }
        }
    }

    static final class Invoice extends Actor {
        Invoice() { super("demo-queue-wait", Thread.State.WAITING, "park"); }

        @Override
        void act() {
            INVOICE_NUMBERS.lock();
        }
    }
}

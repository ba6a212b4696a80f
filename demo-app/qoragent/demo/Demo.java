package qoragent.demo;

import java.io.IOException;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;

/**
 * An application with one thread for each thing that a thread can be busy with, to try the agent on.
 *
 * It prints what its threads do in other tiers, a line each, and "ready" when every thread is in its place.
 * It ends when its standard input does or when its time is up: the first argument, in seconds, 300 if it
 * isn't given. With a folder and a JDBC URL as further arguments the shop in a real container, shop.Shop,
 * takes the place of the models, and its port is printed. With -Ddemo.rests=true no thread computes.
 */
public final class Demo {
    private static final int DEFAULT_SECONDS = 300;

    private Demo() {}

    public static void main(String[] args) throws Exception {
        endAfter(args.length > 0 ? Integer.parseInt(args[0]) : DEFAULT_SECONDS);
        boolean real = args.length > 2;
        List<Actor> actors = new ArrayList<>(Arrays.asList(
            new Payments.Settlement(Feeds.silentConnection()), // before the two that want what it holds
            new Payments.Refund(), new Payments.Invoice(), new Feeds.StockFeed(Feeds.silentConnection()),
            new Feeds.FrontDoor(), new Feeds.PriceFile(), new Tasks.OrderQueue(), new Tasks.NightReport(),
            new Tasks.CategoryTree()));
        if (!Boolean.getBoolean("demo.rests"))
            actors.add(new Tasks.Compute());
        if (!real)
            actors.addAll(Arrays.asList(new Shop.Orders(), new Shop.Cart(Feeds.silentConnection())));
        for (Actor actor : actors) {
            actor.enter();
            if (actor.truth() != null)
                System.out.println(actor.getName() + " " + actor.truth());
        }
        if (real) // compiled apart, where its jars are
            System.out.println("shop " + Class.forName("qoragent.demo.shop.Shop")
                                             .getMethod("open", String.class, String.class)
                                             .invoke(null, args[1], args[2]));
        System.out.println("ready");
        awaitEndOfInput();
    }

    private static void endAfter(int seconds) {
        Thread limit = new Thread("demo-time-limit") {
            @Override
            public void run() {
                try {
                    Thread.sleep(seconds * 1000L);
                } catch (InterruptedException e) {
                    // nobody interrupts it; ending early is the safe side
                }
                System.exit(0);
            }
        };
        limit.setDaemon(true);
        limit.start();
    }

    private static void awaitEndOfInput() throws IOException {
        while (System.in.read() >= 0)
            continue;
    }
}

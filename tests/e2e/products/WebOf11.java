import java.net.URI;
import java.net.http.HttpClient;
import java.net.http.HttpRequest;
import java.net.http.HttpResponse;

/** The client that the JVM has since 11. */
public class WebOf11 implements Web.Client {
    private final HttpClient client = HttpClient.newHttpClient();

    @Override
    public void ask(String url) throws Exception {
        client.send(HttpRequest.newBuilder(URI.create(url)).build(), HttpResponse.BodyHandlers.discarding());
    }
}

package tessar.jdbc.driver;

import java.io.IOException;

/** Rows of a statement. */
public class TessarResultSetImpl {
    private final TessarStatement statement;

    public TessarResultSetImpl(TessarStatement statement) { this.statement = statement; }

    /** Waits for the next row. */
    public boolean next() throws IOException {
        TessarStatement of = statement;
        of.connection.db_access.fetch();
        return of.executions >= 0;
    }
}

package tessar.jdbc.driver;

import java.io.IOException;

/** A statement; the first generation keeps its text in a field, the second in an object. */
public class TessarStatement {
    String sql_query;
    TessarConnection connection;
    TessarSql sqlObject;
    long executions;

    public TessarStatement(TessarConnection connection, String sql) {
        this.connection = connection;
        sql_query = sql;
        sqlObject = new TessarSql(sql);
    }

    /** Waits for the server. */
    public long executeQuery() throws IOException {
        connection.db_access.fetch();
        return ++executions;
    }
}

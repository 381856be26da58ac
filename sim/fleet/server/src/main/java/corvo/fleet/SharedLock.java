package corvo.fleet;

import java.sql.Connection;
import java.sql.PreparedStatement;
import java.sql.SQLException;
import java.sql.Timestamp;
import java.util.UUID;
import java.util.concurrent.Executors;
import java.util.concurrent.ScheduledExecutorService;
import java.util.concurrent.TimeUnit;

import javax.sql.DataSource;

import org.springframework.context.annotation.Bean;
import org.springframework.context.annotation.Configuration;
import org.springframework.context.annotation.DependsOn;
import org.springframework.context.annotation.Profile;
import org.springframework.core.io.ClassPathResource;
import org.springframework.integration.jdbc.lock.DefaultLockRepository;
import org.springframework.integration.jdbc.lock.JdbcLockRegistry;
import org.springframework.integration.support.locks.LockRegistry;
import org.springframework.jdbc.datasource.init.DataSourceInitializer;
import org.springframework.jdbc.datasource.init.ResourceDatabasePopulator;

/**
 * Several instances of the server share the lock of the rollouts through a table of their database. By default each
 * instance has a lock of its own. Two instances then create the actions of a rollout twice, and a group starts before
 * the one before it has ended.
 */
@Configuration
@Profile("cluster")
public class SharedLock {
    /** The other instance continues this long after a holder was killed. */
    private static final int TIME_TO_LIVE_MS = 10000;
    private static final int RENEWAL_MS = 2000;

    /**
     * Renews the locks of this instance. To start a group of a thousand cameras takes longer than a lock lives; the other
     * instance would then handle the same rollout at the same time, and start the next group too early.
     */
    static final class Renewal implements AutoCloseable {
        private final DataSource source;
        private final String instance;
        private final ScheduledExecutorService timer = Executors.newSingleThreadScheduledExecutor();
        /** Kept, because all other connections of the pool may be in use when the server is busy. */
        private Connection connection;

        Renewal(DataSource source, String instance) {
            this.source = source;
            this.instance = instance;
            timer.scheduleAtFixedRate(this::renew, RENEWAL_MS, RENEWAL_MS, TimeUnit.MILLISECONDS);
        }

        private void renew() {
            try {
                if (connection == null) {
                    connection = source.getConnection();
                }
                try (PreparedStatement update = connection.prepareStatement(
                        "UPDATE INT_LOCK SET CREATED_DATE = ? WHERE CLIENT_ID = ?")) {
                    update.setTimestamp(1, new Timestamp(System.currentTimeMillis()));
                    update.setString(2, instance);
                    update.executeUpdate();
                }
            } catch (SQLException failure) {
                // The database was restarted. The next renewal takes a new connection.
                disconnect();
            }
        }

        private void disconnect() {
            try (Connection old = connection) {
                connection = null;
            } catch (SQLException failure) {
                // It was broken.
            }
        }

        @Override
        public void close() {
            timer.shutdownNow();
            disconnect();
        }
    }

    private final String instance = UUID.randomUUID().toString();

    @Bean
    @DependsOn("lockTable")
    Renewal lockRenewal(DataSource source) {
        return new Renewal(source, instance);
    }

    /** Creates the table, when the server's own tables exist. It is no error if the table exists already. */
    @Bean
    @DependsOn("flywayInitializer")
    DataSourceInitializer lockTable(DataSource source) {
        ResourceDatabasePopulator populator = new ResourceDatabasePopulator(
                new ClassPathResource("org/springframework/integration/jdbc/schema-postgresql.sql"));
        populator.setContinueOnError(true);
        DataSourceInitializer initializer = new DataSourceInitializer();
        initializer.setDataSource(source);
        initializer.setDatabasePopulator(populator);
        return initializer;
    }

    /**
     * The repository of the lock is no bean of its own. Spring would give it serializable transactions of the server's
     * transaction manager, and that isolation is left behind on connections that the server then uses for rollouts.
     */
    @Bean
    @DependsOn("lockTable")
    LockRegistry lockRegistry(DataSource source) {
        DefaultLockRepository repository = new DefaultLockRepository(source, instance);
        repository.setTimeToLive(TIME_TO_LIVE_MS);
        repository.afterPropertiesSet();
        return new JdbcLockRegistry(repository);
    }
}

package corvo.fleet;

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
    /** A rollout is handled within a second; the other instance continues this long after a holder was killed. */
    private static final int TIME_TO_LIVE_MS = 10000;

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
        DefaultLockRepository repository = new DefaultLockRepository(source);
        repository.setTimeToLive(TIME_TO_LIVE_MS);
        repository.afterPropertiesSet();
        return new JdbcLockRegistry(repository);
    }
}

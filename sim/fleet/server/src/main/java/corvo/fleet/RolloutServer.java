package corvo.fleet;

import org.eclipse.hawkbit.autoconfigure.security.EnableHawkbitManagedSecurityConfiguration;
import org.springframework.boot.SpringApplication;
import org.springframework.boot.autoconfigure.SpringBootApplication;

/** Starts the server. All settings are on the command line: see sim/fleet/server.py. */
@SpringBootApplication
@EnableHawkbitManagedSecurityConfiguration
public class RolloutServer {
    public static void main(String[] arguments) {
        SpringApplication.run(RolloutServer.class, arguments);
    }
}

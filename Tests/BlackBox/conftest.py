pytest_plugins = ["session_fixtures"]

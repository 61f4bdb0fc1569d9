"""What the calls raise."""


class Error(Exception):
    """The base of everything that a call raises on purpose."""


class Invalid(Error, ValueError):
    """An argument cannot be sent: JSON cannot say it, or it is too long. Nothing was sent."""


class Unavailable(Error):
    """The daemon cannot be reached. Nothing was sent."""


class Interrupted(Error):
    """No valid answer arrived after sending began. The request may have been carried out."""


class Refused(Error):
    """The daemon refused the request. Only its log gives the reason."""


class Malformed(Refused):
    """The token is valid for the service, but the payload cannot be judged."""

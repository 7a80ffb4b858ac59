"""Endpoint extraction: which web frameworks the route scanner understands."""

# Framework key (as accepted by `list_endpoints --framework`) -> display name.
ENDPOINT_FRAMEWORKS = {
    "flask": "Flask",
    "fastapi": "FastAPI",
    "django": "Django REST framework",
    "express": "Express",
    "spring": "Spring MVC",
}

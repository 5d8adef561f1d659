<?php
echo $_SERVER['REQUEST_METHOD'], ' ', $_SERVER['SCRIPT_NAME'], ' ', $_SERVER['REQUEST_URI'], ' user=', $_POST['user'] ?? '';
